// A push is complete when its data part has the announced length, or after one read when nothing
// was announced. What the sender does next says what it wants: if it leaves the connection open, it
// waits for an acknowledgement, and the connection travels with the push; if it closes, there is
// nobody to tell.

#include "agent/pushes/push_connection.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/configuration/config_manager.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/support/log.hpp"
#include "agent/support/service_life.hpp"

namespace {

using Buffer = std::array<char, PUSH_PAYLOAD_BYTES>;

// Main thread only.
Buffer g_buffer;

}  // namespace

PushConnection::PushConnection(int socket, QuilSession& session)
    : m_session(session),
      m_appId(session.getProviderAppId()),
      m_timeoutSeconds(QuilConfigManager::getInstance()->getPushTimeout()),
      m_lastHeard(Clock::now()),
      m_deadline(m_timeoutSeconds > 0 ? m_lastHeard + std::chrono::seconds(m_timeoutSeconds)
                                      : Clock::time_point::max()),
      m_socket(socket) {}

void PushConnection::postpone(Clock::duration time) {
    if (m_deadline != Clock::time_point::max()) {
        m_deadline += time;
    }
}

PushConnection::Progress PushConnection::advance() {
    for (;;) {
        int count = 0;
        if (receive(&count) == Progress::Waits) {
            return Progress::Waits;
        }
        if (m_push == nullptr) {
            if (count < 0) {
                QUIL_LOG(LOG_LEVEL_WARNING,
                         "serverIfProcessData: Cound not read incoming data with error no=%d "
                         "error='%s'\n",
                         errno, strerror(errno));
                return Progress::Done;
            }
            m_push = std::make_unique<QuilPushMessage>(m_appId, m_session.getClientObjectId());
        } else if (count <= 0) {
            finish(count);
            return Progress::Done;
        }
        m_push->setPayload(g_buffer.data(), count);
        // With all that can be held a push is in or too large, whatever comes.
        if (!m_push->hasMoreData() || m_push->isPayloadFull()) {
            finish(count);
            return Progress::Done;
        }
    }
}

PushConnection::Progress PushConnection::receive(int* count) {
    do {
        *count =
            static_cast<int>(recv(m_socket.get(), g_buffer.data(), g_buffer.size(), MSG_DONTWAIT));
    } while (*count == -1 && errno == EINTR);
    if (*count == -1 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return Progress::Waits;
    }
    m_lastHeard = Clock::now();
    QUIL_LOG(LOG_LEVEL_INFO, "serverIfProcessData 1: recved [%d] bytes of data", *count);
    return Progress::Done;
}

void PushConnection::logTimeout() const {
    QUIL_LOG(LOG_LEVEL_WARNING,
             "serverIfProcessData: push for app id [%s] not complete after %d seconds",
             m_appId.c_str(), m_timeoutSeconds);
}

void PushConnection::finish(int lastCount) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfProcessData 1.1: recved [%d] bytes of data", lastCount);
    if (readBehindPush(lastCount) < 0) {
        m_push->setSocket(m_socket.get());
    } else {
        closeAfterPush();
    }
    // The application may have come back since the first read.
    const std::string clientId = m_session.getClientObjectId();
    if (!clientId.empty()) {
        m_push->setClientId(clientId);
        m_push->setLife(serviceLife());
    }
    auto node = std::make_unique<QuilMessageNode>(MESSAGE_PUSH, std::move(m_push));
    m_socket.release();  // the push's, if it is still open; the queue closes it when it cannot take
                         // the push
    QuilMessageManager::getInstance()->push(std::move(node));
}

// Reads once more. Gives the last count: negative when the sender keeps the connection open.
int PushConnection::readBehindPush(int lastCount) {
    if (lastCount <= 0) {
        return lastCount;
    }
    const int count =
        static_cast<int>(recv(m_socket.get(), g_buffer.data(), g_buffer.size(), MSG_DONTWAIT));
    QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfProcessData 2: recved [%d] bytes of data", count);
    const bool isShort =
        m_push->getContentLength() >= 1 && m_push->getDataLength() < m_push->getContentLength();
    if (count > 0 && m_push->isPayloadFull() && isShort) {
        // The reads took all that can be kept, and what was announced goes on: the push is too
        // large, and is refused, not cut.
        m_push->setPayload(g_buffer.data(), count);
    }
    return count;
}

void PushConnection::closeAfterPush() {
    const int result = close(m_socket.release());
    QUIL_LOG(LOG_LEVEL_DEBUG, "close new socket ret. [%d]", result);
    if (result == -1) {
        QUIL_LOG(LOG_LEVEL_WARNING, "close new socket failure errno [%d] error[%s]", errno,
                 strerror(errno));
    }
}
