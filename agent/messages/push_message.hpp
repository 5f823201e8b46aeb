// One push: the raw bytes as they arrived, the header lines found in them, the data part and the
// push id. docs/formats/push.md shows the bytes.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/messages/base_message.hpp"
#include "agent/messages/push_header.hpp"

// Bytes that one push may have in all, header lines included. One read of the listener asks for as
// many.
constexpr int PUSH_PAYLOAD_BYTES = 15360;

class QuilPushMessage : public QuilBaseMessage {
  public:
    QuilPushMessage(const std::string& appId, const std::string& clientId);
    ~QuilPushMessage() override;
    QuilPushMessage(const QuilPushMessage& other);
    QuilPushMessage& operator=(const QuilPushMessage& other);

    // Takes in n more bytes. Bytes beyond PUSH_PAYLOAD_BYTES are counted but not kept, so that such
    // a push is refused later, never cut. Parses as long as the header block has not been parsed.
    void setPayload(const char* bytes, int n);
    // True while the data part is shorter than "Content-Length" announced.
    bool hasMoreData() const;
    bool isPayloadFull() const { return getPayloadLength() == PUSH_PAYLOAD_BYTES; }
    // Turns the data part into base64. A push without a data part, or with one that is not held
    // completely, that does not fit, or that goes on beyond a full payload, gets
    // RESULT_PUSH_NOT_ENCODABLE.
    void createData();
    bool addData(pps_encoder_t* encoder) const override;

    int getPayloadLength() const { return static_cast<int>(m_payload.size()); }
    int getDataLength() const { return m_dataLength; }
    int getContentLength() const { return m_contentLength; }
    int getDataPosition() const { return m_dataPosition; }
    const std::string& getData() const { return m_data; }
    const std::vector<std::unique_ptr<QuilHttpHeader>>& getHttpHeaders() const {
        return m_httpHeaders;
    }

    // The accepted connection kept for the application's answer, -1 for none. Copies share the
    // number; no message ever closes it.
    int getSocket() const { return m_socket; }
    void setSocket(int socket) { m_socket = socket; }

  private:
    void parsePayload();
    void parseHeader(const std::string& token);
    void endHeaderBlock(int position);
    bool isShort() const;
    bool isDataHeld() const;
    void copyPayload(const char* bytes, int n);
    void copyHttpHeaders(const QuilPushMessage& other);
    void freeHttpHeaders();

    std::string m_payload;   // the bytes kept so far; also looked at as a text
    int m_bytesNotKept = 0;  // bytes that came when the payload was full
    std::string m_data;
    int m_dataLength = -1;     // data bytes received; -1 until the header block has been parsed
    int m_contentLength = -1;  // as announced; -1 when it was not
    int m_dataPosition = -1;   // offset of the data part in the payload
    std::vector<std::unique_ptr<QuilHttpHeader>> m_httpHeaders;
    int m_socket = -1;
};
