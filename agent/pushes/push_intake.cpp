// A push is complete when its data part has the announced length, or after one read when nothing
// was announced. What the sender does next says what it wants: if it leaves the connection open, it
// waits for an acknowledgement, and the connection travels with the push; if it closes, there is
// nobody to tell.
//
// Accepted sockets are moved to high numbers: they are never selected on, and the low numbers,
// which alone can be, are left to listening sockets.

#include "agent/pushes/push_intake.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "agent/configuration/config_manager.hpp"
#include "agent/connections/owned_socket.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/high_descriptor.hpp"
#include "agent/support/log.hpp"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPauseAfterShortage{100};

// Until when a push has to be complete.
class Deadline {
  public:
    explicit Deadline(int seconds)
        : m_isLimited(seconds > 0), m_end(Clock::now() + std::chrono::seconds(seconds)) {}

    // Waits for something to read. False when the time is up, also when there is something then: a
    // sender that drips must not get by.
    bool waitFor(int socket) const {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now()).count();
        if (m_isLimited && left <= 0) {
            return false;
        }
        pollfd watched = {socket, POLLIN, 0};
        if (poll(&watched, 1, 0) != 0) {
            return true;
        }
        flushLogEcho();
        // Without a limit the read itself waits.
        return !m_isLimited ||
               poll(&watched, 1, static_cast<int>(std::min<std::int64_t>(left, 1 << 30))) != 0;
    }

  private:
    bool m_isLimited;
    Clock::time_point m_end;
};

using Buffer = std::array<char, PUSH_PAYLOAD_BYTES>;

// Accepts a connection on the session's port. -1 when there is none, which is logged unless the
// session has stopped listening meanwhile.
int acceptConnection(QuilSession& session) {
    const int socket = session.acceptOnPort();
    if (socket != -1) {
        return moveToHighDescriptor(socket);
    }
    const int error = errno;
    if (error != 0) {
        QUIL_LOG(LOG_LEVEL_WARNING, "serverIfProcessData: Accept failed with errno[%d] error[%s]",
                 error, strerror(error));
    }
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        // The connection still waits, and the next pass would fail in the same way at once.
        std::this_thread::sleep_for(kPauseAfterShortage);
    }
    return -1;
}

// One read. False when the time was up first.
bool receive(int socket, const Deadline& deadline, Buffer* buffer, int* count) {
    buffer->fill('\0');
    if (!deadline.waitFor(socket)) {
        return false;
    }
    *count = static_cast<int>(recv(socket, buffer->data(), buffer->size(), 0));
    const int error = errno;
    QUIL_LOG(LOG_LEVEL_INFO, "serverIfProcessData 1: recved [%d] bytes of data", *count);
    errno = error;
    return true;
}

// What came of reading a push.
struct ReadResult {
    std::unique_ptr<QuilPushMessage> push;  // null when there is none to hand on
    int lastCount = 0;
};

ReadResult readPush(int socket, const std::string& appId, const std::string& clientId) {
    const int timeout = QuilConfigManager::getInstance()->getPushTimeout();
    const Deadline deadline(timeout);
    ReadResult result;
    Buffer buffer;
    for (;;) {
        if (!receive(socket, deadline, &buffer, &result.lastCount)) {
            QUIL_LOG(LOG_LEVEL_WARNING,
                     "serverIfProcessData: push for app id [%s] not complete after %d seconds",
                     appId.c_str(), timeout);
            result.push.reset();
            return result;
        }
        if (result.push == nullptr) {
            if (result.lastCount < 0) {
                QUIL_LOG(LOG_LEVEL_WARNING,
                         "serverIfProcessData: Cound not read incoming data with error no=%d "
                         "error='%s'\n",
                         errno, strerror(errno));
                return result;
            }
            result.push = std::make_unique<QuilPushMessage>(appId, clientId);
        } else if (result.lastCount <= 0) {
            return result;
        }
        // A push that is too large is known by the bytes beyond what can be held; there is no need
        // for all of them.
        const bool wasFull = result.push->isPayloadFull();
        result.push->setPayload(buffer.data(), result.lastCount);
        if (!result.push->hasMoreData() || wasFull) {
            return result;
        }
    }
}

void closeAfterPush(OwnedSocket* connection) {
    const int result = close(connection->release());
    QUIL_LOG(LOG_LEVEL_DEBUG, "close new socket ret. [%d]", result);
    if (result == -1) {
        QUIL_LOG(LOG_LEVEL_WARNING, "close new socket failure errno [%d] error[%s]", errno,
                 strerror(errno));
    }
}

// Reads once more without waiting. Gives the last count: negative when the sender keeps the
// connection open.
int readBehindPush(int socket, int lastCount, QuilPushMessage* push) {
    if (lastCount <= 0) {
        return lastCount;
    }
    fcntl(socket, F_SETFL, O_NONBLOCK);
    Buffer buffer;
    const int count = static_cast<int>(recv(socket, buffer.data(), buffer.size(), 0));
    QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfProcessData 2: recved [%d] bytes of data", count);
    const bool isShort =
        push->getContentLength() >= 1 && push->getDataLength() < push->getContentLength();
    if (count > 0 && push->isPayloadFull() && isShort) {
        // The reads took all that can be kept, and what was announced goes on: the push is too
        // large, and is refused, not cut.
        push->setPayload(buffer.data(), count);
    }
    return count;
}

}  // namespace

void serverIfProcessData(QuilPort* port) {
    if (port == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "serverIfProcessData: Quil Port is NULL\n");
        return;
    }
    const std::string appId = port->getName();
    if (appId.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING, "serverIfProcessData: AppID not found for port %d",
                 port->getPort());
        return;
    }
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "serverIfProcessData: session not found for app id [%s]",
                 appId.c_str());
        return;
    }
    const std::string clientId = session->getClientObjectId();
    if (clientId.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING, "serverIfProcessData: getClientObjectId is empty");
        port->setWaitingForClient(true);
        return;
    }
    OwnedSocket connection(acceptConnection(*session));
    if (connection.get() == -1) {
        return;
    }
    ReadResult result = readPush(connection.get(), appId, clientId);
    if (result.push == nullptr) {
        return;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfProcessData 1.1: recved [%d] bytes of data",
             result.lastCount);
    if (readBehindPush(connection.get(), result.lastCount, result.push.get()) < 0) {
        result.push->setSocket(connection.get());
    } else {
        closeAfterPush(&connection);
    }
    auto node = std::make_unique<QuilMessageNode>(MESSAGE_PUSH, std::move(result.push));
    connection.release();  // the push's, if it is still open; the queue closes it when it cannot
                           // take the push
    QuilMessageManager::getInstance()->push(std::move(node));
}
