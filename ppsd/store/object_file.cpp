// What a descriptor has seen is the attribute list that it read last. Lists are never changed in
// place, so one pointer says both whether there is something new and, for "?delta", what it is.
// Nothing has to be remembered per change, however many there are between two reads.

#include "ppsd/store/object_file.hpp"

ObjectFile::ObjectFile(std::shared_ptr<ObjectNode> node, OpenOptions options, Writer writer)
    : OpenFile(options), m_node(std::move(node)), m_writer(std::move(writer)) {
    m_node->openFiles.insert(this);
}

ObjectFile::~ObjectFile() {
    m_node->openFiles.erase(this);
}

std::string ObjectFile::unreadText() const {
    if (m_seen == m_node->attributes) {
        return {};
    }
    if (!m_options.delta) {
        return renderObject(m_node->name, *m_node->attributes);
    }
    static const AttributeList kNone;
    return renderDelta(m_node->name, m_seen ? *m_seen : kNone, *m_node->attributes);
}

ReadOutcome ObjectFile::read(std::size_t size, std::string& bytes) {
    if (m_rest.empty()) {
        m_rest = unreadText();
        m_seen = m_node->attributes;
    }
    if (m_rest.empty()) {
        return ReadOutcome::kNothing;
    }
    bytes.assign(m_rest, m_restRead, size);
    m_restRead += bytes.size();
    if (m_restRead == m_rest.size()) {
        m_rest.clear();
        m_restRead = 0;
    }
    return ReadOutcome::kBytes;
}

int ObjectFile::write(std::string_view text) {
    return m_writer(*m_node, text);
}

Readiness ObjectFile::readiness() const {
    return {!m_rest.empty() || !unreadText().empty(), false};
}
