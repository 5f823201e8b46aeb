// Reads give whole objects; each begins with a line "@ipc" or "-@ipc".

#include "tests/support/client_connection.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <vector>

#include "platform/pps/decoder.hpp"

namespace {

std::string stringAt(pps_decoder_t& decoder, const char* name) {
    std::string value;
    pps_decoder_get_string(&decoder, name, &value);
    return value;
}

std::string readHeaders(pps_decoder_t& decoder) {
    std::string all;
    pps_decoder_push(&decoder, "httpHeaders");
    std::string name;
    std::string value;
    for (int i = 0; pps_decoder_get_at(&decoder, i, &name, &value) == PPS_DECODER_OK; ++i) {
        all += "[" + name + "=" + value + "]";
    }
    pps_decoder_pop(&decoder);
    return all;
}

Reply parse(const std::string& text) {
    Reply reply;
    reply.text = text;
    pps_decoder_t decoder;
    pps_decoder_initialize(&decoder, text.c_str());
    pps_decoder_push(&decoder, nullptr);
    reply.msg = stringAt(decoder, "msg");
    reply.id = stringAt(decoder, "id");
    pps_decoder_get_int(&decoder, "err", &reply.err);
    reply.hasDat = pps_decoder_push(&decoder, "dat") == PPS_DECODER_OK;
    reply.token = stringAt(decoder, "token");
    reply.data = stringAt(decoder, "data");
    pps_decoder_get_int(&decoder, "appLevelAck", &reply.appLevelAck);
    reply.headers = readHeaders(decoder);
    return reply;
}

}  // namespace

ClientConnection::ClientConnection(const std::string& objectPath)
    : m_descriptor(open(objectPath.c_str(), O_RDWR | O_CLOEXEC)) {}

ClientConnection::~ClientConnection() {
    close();
}

void ClientConnection::close() {
    if (m_descriptor >= 0) {
        ::close(m_descriptor);
        m_descriptor = -1;
    }
}

bool ClientConnection::write(std::string_view text) const {
    return ::write(m_descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool ClientConnection::request(const std::string& name, const std::string& id,
                               const std::string& appId, const std::string& extra) const {
    return write("msg::" + name + "\nid::" + id + "\ndat:json:{\"providerApplicationId\":\"" +
                 appId + "\"" + (extra.empty() ? "" : "," + extra) + "}\n");
}

bool ClientConnection::readMore(double seconds) {
    pollfd watched = {m_descriptor, POLLIN, 0};
    if (poll(&watched, 1, static_cast<int>(seconds * 1000)) <= 0) {
        return false;
    }
    std::vector<char> buffer(1 << 20);
    const ssize_t count = read(m_descriptor, buffer.data(), buffer.size());
    if (count > 0) {
        m_pending.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return count > 0;
}

Reply ClientConnection::next(double seconds) {
    if (m_pending.empty() && !readMore(seconds)) {
        return {};
    }
    const std::size_t at = m_pending.find("\n@", 1);
    const std::size_t gone = m_pending.find("\n-@", 1);
    const std::size_t following = at < gone ? at : gone;
    const std::string text =
        following == std::string::npos ? m_pending : m_pending.substr(0, following + 1);
    m_pending.erase(0, text.size());
    return parse(text);
}

bool ClientConnection::isSilent(double seconds) {
    return m_pending.empty() && !readMore(seconds);
}

bool ClientConnection::isEnded(double seconds) {
    char byte = 0;
    return next(seconds).text == "-@ipc\n" && read(m_descriptor, &byte, 1) == 0;
}
