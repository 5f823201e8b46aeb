// Contents are never changed, so a number says whether there is something new. Only two kinds of
// descriptors keep a content alive: one that is in the middle of it, and one that reads
// differences. All that keep the same share it, and their users pay for it once each. So do those
// who have an object open that was removed.
//
// Nothing has to be remembered per change, however many there are between two reads.

#include "ppsd/store/object_file.hpp"

#include <algorithm>
#include <new>
#include <utility>

#include "ppsd/store/attributes.hpp"

namespace {

constexpr std::uint64_t kNothingSeen = 0;

}  // namespace

ObjectFile::ObjectFile(std::shared_ptr<ObjectNode> node, OpenOptions options, Charge place,
                       Accounts& accounts, Writer writer, Closed closed)
    : OpenFile(options, std::move(place)),
      m_node(std::move(node)),
      m_accounts(accounts),
      m_writer(std::move(writer)),
      m_closed(std::move(closed)),
      m_seenNumber(kNothingSeen) {
    m_node->openFiles.insert(this);
}

ObjectFile::~ObjectFile() {
    m_node->openFiles.erase(this);
    letGo();
    m_closed(*m_node);
}

void ObjectFile::keep() noexcept {
    letGo();
    try {
        m_keptCharge = m_node->content->pinInHalf(m_accounts, user());
    } catch (const std::bad_alloc&) {
        return;
    }
    m_node->keepers += m_keptCharge == nullptr ? 0 : 1;
}

void ObjectFile::letGo() noexcept {
    m_node->keepers -= m_keptCharge == nullptr ? 0 : 1;
    m_keptCharge = nullptr;
}

std::string ObjectFile::Rest::take(std::size_t size) {
    std::string taken;
    taken.reserve(std::min(size, this->size()));
    if (read < head.size()) {
        taken.assign(head, read, size);
    }
    if (lines && taken.size() < size) {
        const std::size_t at = read + taken.size() - head.size();
        taken.append(lines->lines, at, size - taken.size());
    }
    read += taken.size();
    return taken;
}

void ObjectFile::readRest(std::size_t size, std::string& bytes) {
    bytes = m_rest.take(size);
    if (m_rest.size() == 0) {
        m_rest = {};
    }
}

ReadOutcome ObjectFile::read(uid_t reader, std::size_t size, std::string& bytes) {
    if (m_rest.size() != 0) {
        readRest(size, bytes);
        return ReadOutcome::kBytes;
    }
    if (!isNew()) {
        return ReadOutcome::kNothing;
    }
    return m_options.delta ? readDelta(reader, size, bytes) : readText(reader, size, bytes);
}

ReadOutcome ObjectFile::readText(uid_t reader, std::size_t size, std::string& bytes) {
    const std::shared_ptr<Content> content = m_node->content;
    if (content->lines.empty()) {
        m_seenNumber = content->number;
        return ReadOutcome::kNothing;
    }
    Rest text{objectLine(m_node->name), content, 0, nullptr};
    if (text.size() > size) {
        text.charge = content->pin(m_accounts, reader);
        if (text.charge == nullptr) {
            return ReadOutcome::kRefused;
        }
    }
    bytes = text.take(size);
    m_seenNumber = content->number;
    if (text.size() != 0) {
        m_rest = std::move(text);
    }
    return ReadOutcome::kBytes;
}

ReadOutcome ObjectFile::readDelta(uid_t reader, std::size_t size, std::string& bytes) {
    const std::shared_ptr<Content> content = m_node->content;
    std::shared_ptr<Charge> charge = content->pin(m_accounts, reader);
    if (charge == nullptr) {
        return ReadOutcome::kRefused;
    }
    Rest text{delta(), nullptr, 0, nullptr};
    if (text.size() > size) {
        text.charge = std::make_shared<Charge>(m_accounts, reader, Holding::kMemory);
        if (!text.charge->grow(text.size())) {
            return ReadOutcome::kRefused;
        }
    }
    bytes = text.take(size);
    m_seen = content;
    m_seenCharge = std::move(charge);
    m_seenNumber = content->number;
    if (text.size() != 0) {
        m_rest = std::move(text);
    }
    return bytes.empty() ? ReadOutcome::kNothing : ReadOutcome::kBytes;
}

void ObjectFile::write(uid_t writer, std::string_view text, const Done& done) {
    m_writer(m_node, writer, text, done);
}

std::string ObjectFile::delta() const {
    const std::string_view seen = m_seen ? std::string_view(m_seen->lines) : std::string_view();
    return renderDelta(m_node->name, seen, m_node->content->lines);
}

// An attribute that changed and changed back is no difference. Worked out once for all who have
// seen the same, however many they are and however often they poll.
bool ObjectFile::hasDelta() const {
    const auto [found, isNew] = m_node->differences.try_emplace(m_seenNumber, true);
    if (isNew) {
        try {
            found->second = !delta().empty();
        } catch (...) {
            m_node->differences.erase(found);
            throw;
        }
    }
    return found->second;
}

Readiness ObjectFile::readiness() const {
    if (m_rest.size() != 0) {
        return {true, false};
    }
    if (!isNew()) {
        return {false, false};
    }
    return {m_options.delta ? hasDelta() : !m_node->content->lines.empty(), false};
}
