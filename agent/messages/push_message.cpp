// The payload is one text, cut at every "\r\n". The search goes on one byte behind the '\r' that
// ended a line, so every line but the first still begins with the '\n' before it; an empty line is
// that '\n' alone. This is why a name starts at the second character of its line, and why the very
// first line, which has no '\n', loses its first character if it holds a ':' at all. Kept on
// purpose: the first line is a request line, and is dropped for want of a ':'.

#include "agent/messages/push_message.hpp"

#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "agent/support/decimal.hpp"
#include "agent/support/log.hpp"

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr const char* kPushIdHeader = "Push-Message-ID";
constexpr const char* kContentLengthHeader = "Content-Length";
constexpr std::size_t kBase64Bytes = 15360;  // 15359 characters and a NUL

// Positions as the log shows them: -1 for none.
int shown(std::size_t position) {
    return position == std::string_view::npos ? -1 : static_cast<int>(position);
}

void logIgnored(const std::string& token) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: colon_pos %d\n", -1);
    QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: Ignoring %s since : not found", token.c_str());
}

// Part of the id of a push that came without one. Seeded anew only in another second, so that two
// pushes within one second have two ids. Called on the main thread alone.
int nextRandomNumber() {
    static std::time_t lastSeed = 0;
    const std::time_t now = std::time(nullptr);
    if (now != lastSeed) {
        lastSeed = now;
        std::srand(static_cast<unsigned>(now));
    }
    return std::rand();
}

}  // namespace

QuilPushMessage::QuilPushMessage(const std::string& appId, const std::string& clientId)
    : QuilBaseMessage(appId, "", clientId) {
    setCallbackName("pushNotification");
    setMessageType(MESSAGE_PUSH);
}

QuilPushMessage::QuilPushMessage(const QuilPushMessage& other)
    : QuilBaseMessage(other),
      m_bytesNotKept(other.m_bytesNotKept),
      m_data(other.m_data),
      m_dataLength(other.m_dataLength),
      m_contentLength(other.m_contentLength),
      m_dataPosition(other.m_dataPosition),
      m_socket(other.m_socket) {
    copyPayload(other.m_payload.data(), other.getPayloadLength());
    copyHttpHeaders(other);
}

QuilPushMessage& QuilPushMessage::operator=(const QuilPushMessage& other) {
    if (this == &other) {
        return *this;
    }
    QuilBaseMessage::operator=(other);
    m_bytesNotKept = other.m_bytesNotKept;
    m_data = other.m_data;
    m_dataLength = other.m_dataLength;
    m_contentLength = other.m_contentLength;
    m_dataPosition = other.m_dataPosition;
    m_socket = other.m_socket;
    copyPayload(other.m_payload.data(), other.getPayloadLength());
    freeHttpHeaders();
    copyHttpHeaders(other);
    return *this;
}

QuilPushMessage::~QuilPushMessage() {
    freeHttpHeaders();
}

void QuilPushMessage::setPayload(const char* bytes, int n) {
    const int kept = std::min(n, PUSH_PAYLOAD_BYTES - getPayloadLength());
    m_payload.append(bytes, static_cast<std::size_t>(kept));
    m_bytesNotKept += n - kept;
    QUIL_LOG(LOG_LEVEL_DEBUG, "setPayload: len [%d] payload[%s]", getPayloadLength(),
             m_payload.c_str());
    if (m_dataLength != -1) {
        m_dataLength += n;
    } else {
        parsePayload();
    }
}

bool QuilPushMessage::hasMoreData() const {
    QUIL_LOG(LOG_LEVEL_DEBUG, "hasMoreData: m_contentLength[%d] m_dataLength[%d]", m_contentLength,
             m_dataLength);
    return isShort();
}

// Whether its data part has begun and is shorter than announced.
bool QuilPushMessage::isShort() const {
    return m_contentLength >= 1 && m_dataLength >= 1 && m_dataLength < m_contentLength;
}

// A push that broke off is handed on as it is, unless it did because no more can be held: that one
// is too large.
bool QuilPushMessage::isDataHeld() const {
    return m_dataPosition >= 0 && m_dataLength >= 0 &&
           m_dataLength <= getPayloadLength() - m_dataPosition && !(isPayloadFull() && isShort());
}

void QuilPushMessage::parsePayload() {
    const std::string_view text(m_payload.data(), std::strlen(m_payload.c_str()));
    QUIL_LOG(LOG_LEVEL_DEBUG, "***parsePayload: size of payload_str %d payload[%s]\n",
             static_cast<int>(text.size()), m_payload.data());
    std::size_t current = 0;
    std::size_t lineEnd = text.find(kLineEnd);
    bool done = lineEnd == std::string_view::npos && getPayloadLength() == 0;
    QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: cur_pos %d newline_pos %d done = %d",
             static_cast<int>(current), shown(lineEnd), done ? 1 : 0);
    while (!done) {
        const std::string token(text.substr(current, lineEnd - current));
        QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: Current token: [%s] token len [%d]", token.c_str(),
                 static_cast<int>(token.size()));
        if (lineEnd == std::string_view::npos) {
            // Without its line end the rest is no line yet, neither a header nor the end of the
            // header block: it is passed over as a line without a colon.
            QUIL_LOG(LOG_LEVEL_DEBUG, "header done [%d]\n", 0);
            logIgnored(token);
            current = static_cast<std::size_t>(getPayloadLength());
            QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: cur_pos %d newline_pos %d done = %d\n",
                     static_cast<int>(current), shown(lineEnd), 1);
            break;
        }
        const bool isEmptyLine = token.size() == 1;
        if (isEmptyLine) {
            QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: Got new line so header is done.\n");
        }
        QUIL_LOG(LOG_LEVEL_DEBUG, "header done [%d]\n", isEmptyLine ? 1 : 0);
        if (isEmptyLine) {
            endHeaderBlock(static_cast<int>(lineEnd + kLineEnd.size()));
            break;
        }
        parseHeader(token);
        current = lineEnd + 1;
        lineEnd = text.find(kLineEnd, current);
        done = lineEnd == std::string_view::npos &&
               current >= static_cast<std::size_t>(getPayloadLength());
        QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: cur_pos %d newline_pos %d done = %d\n",
                 static_cast<int>(current), shown(lineEnd), done ? 1 : 0);
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilPushMessage::parsePayload: number of headers: %d currentPos[%d]",
             static_cast<int>(m_httpHeaders.size()), static_cast<int>(current));
    for (const auto& header : m_httpHeaders) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: name [%s] value[%s]\n", header->getName().c_str(),
                 header->getValue().c_str());
    }
    if (getId().empty()) {
        setId(getName() + std::to_string(nextRandomNumber()));
    }
}

void QuilPushMessage::endHeaderBlock(int position) {
    m_dataPosition = position;
    m_dataLength = getPayloadLength() + m_bytesNotKept - position;
    QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: len[%d] Data portion [%s] ", m_dataLength,
             m_payload.data() + position);
    QUIL_LOG(LOG_LEVEL_DEBUG, "content length[%d] data length[%d] data position[%d]",
             m_contentLength, m_dataLength, m_dataPosition);
}

void QuilPushMessage::parseHeader(const std::string& token) {
    const std::size_t colon = token.find(':');
    if (colon == std::string::npos) {
        logIgnored(token);
        return;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: colon_pos %d\n", shown(colon));
    const std::string name = colon == 0 ? "" : token.substr(1, colon - 1);
    const std::string value = token.substr(colon + 1);
    QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: name is [%s]\n", name.c_str());
    QUIL_LOG(LOG_LEVEL_DEBUG, "parsePayload: value is [%s]\n", value.c_str());
    m_httpHeaders.push_back(std::make_unique<QuilHttpHeader>(name, value));
    if (name == kPushIdHeader) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "found [%s] and value [%s]", name.c_str(), value.c_str());
        setId(value);
    } else if (name == kContentLengthHeader) {
        m_contentLength = leadingDecimalAfterBlanks(value);
    }
}

void QuilPushMessage::createData() {
    char text[kBase64Bytes];
    text[0] = '\0';
    int length = -1;
    if (isDataHeld()) {
        const auto* data = reinterpret_cast<const unsigned char*>(m_payload.data());
        length = b64_ntop(data + m_dataPosition, static_cast<std::size_t>(m_dataLength), text,
                          sizeof text);
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilPushMessage::createData: data_length[%d]", length);
    if (length < 0) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilPushMessage:createData: error convert to base64 string: error[%d]", length);
        setErrorCode(RESULT_PUSH_NOT_ENCODABLE);
    } else {
        m_data = text;
        QUIL_LOG(LOG_LEVEL_DEBUG, "QuilPushMessage::createData: data[%s][%s]", m_data.c_str(),
                 text);
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilPushMessage::createData: data size is [%d]",
             static_cast<int>(m_data.size()));
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilPushMessage::createData: actual data is [%s]", m_data.c_str());
}

bool QuilPushMessage::addData(pps_encoder_t* encoder) const {
    pps_encoder_add_int(encoder, "appLevelAck", m_socket == -1 ? 0 : 1);
    QUIL_LOG(LOG_LEVEL_DEBUG, "addData: data len is %d", static_cast<int>(m_data.size()));
    QUIL_LOG(LOG_LEVEL_DEBUG, "addData: data [%s]\n", m_data.c_str());
    pps_encoder_add_string(encoder, "data", m_data);
    if (m_httpHeaders.empty()) {
        return true;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "addData: header_count [%d]", static_cast<int>(m_httpHeaders.size()));
    pps_encoder_start_object(encoder, "httpHeaders");
    try {
        for (const auto& header : m_httpHeaders) {
            const std::string name = header->getName();
            const std::string value = header->getValue();
            QUIL_LOG(LOG_LEVEL_INFO, "addData: name [%s] value[%s]", name.c_str(), value.c_str());
            pps_encoder_add_string(encoder, name, value);
        }
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "addData: exception occurred when trying to add the http header name and value to "
                 "the pps data");
    }
    pps_encoder_end_object(encoder);
    return true;
}

void QuilPushMessage::copyPayload(const char* bytes, int n) {
    m_payload.assign(bytes, static_cast<std::size_t>(n));
}

void QuilPushMessage::copyHttpHeaders(const QuilPushMessage& other) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "copyHttpHeaders: src http headers size [%d]",
             static_cast<int>(other.m_httpHeaders.size()));
    for (const auto& header : other.m_httpHeaders) {
        const std::string name = header->getName();
        const std::string value = header->getValue();
        QUIL_LOG(LOG_LEVEL_DEBUG, "Copy: name[%s] value[%s]", name.c_str(), value.c_str());
        m_httpHeaders.push_back(std::make_unique<QuilHttpHeader>(name, value));
    }
}

void QuilPushMessage::freeHttpHeaders() {
    try {
        for (const auto& header : m_httpHeaders) {
            QUIL_LOG(LOG_LEVEL_INFO, "freeHttpHeaders: name [%s] value[%s]",
                     header->getName().c_str(), header->getValue().c_str());
        }
    } catch (...) {
        // No memory for a copy: the destructor has to go on all the same.
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "freeHttpHeaders: exception occurred when trying to log the http headers");
    }
    m_httpHeaders.clear();
}
