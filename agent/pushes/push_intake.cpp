// One connection at a time is accepted on a port, so that a busy port keeps neither other ports nor
// clients waiting. Accepted sockets are moved to numbers of their own (push_descriptors.hpp): they
// are never selected on, and the low numbers, which alone can be, are left to listening sockets.

#include "agent/pushes/push_intake.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "agent/configuration/config_manager.hpp"
#include "agent/connections/owned_socket.hpp"
#include "agent/connections/push_descriptors.hpp"
#include "agent/pushes/allowed_senders.hpp"
#include "agent/pushes/dead_senders.hpp"
#include "agent/pushes/push_connection.hpp"
#include "agent/pushes/set_aside.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"

namespace {

using Clock = PushConnection::Clock;

constexpr std::chrono::milliseconds kPauseAfterShortage{100};
constexpr std::chrono::seconds kPauseBetweenRefusals{1};

// While nothing can be accepted.
bool g_isPaused = false;
Clock::time_point g_pausedUntil{};

SetAsideConnections& setAside() {
    static auto* const connections = new SetAsideConnections();
    return *connections;
}

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// Whether the sender may push. Tells of those who may not once a second at the most.
bool isAllowed(int socket) {
    static const auto* const allowed =
        new AllowedSenders(QuilConfigManager::getInstance()->getAllowedSenders());
    static Clock::time_point nextLine{};
    static int refused = 0;
    if (allowed->allowsPeerOf(socket)) {
        return true;
    }
    ++refused;
    const Clock::time_point now = Clock::now();
    if (now >= nextLine) {
        nextLine = now + kPauseBetweenRefusals;
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "serverIfProcessData: sender [%s] may not push (%d refused since the last line)",
                 peerName(socket).c_str(), refused);
        refused = 0;
    }
    return false;
}

void pauseIntake() {
    g_pausedUntil = Clock::now() + kPauseAfterShortage;
    setAside().wakeAt(g_pausedUntil);
}

// -1 with errno, as acceptOnPort.
int tryToAccept(QuilSession& session) {
    if (!isDescriptorLeftForPush()) {
        errno = EMFILE;
        return -1;
    }
    return session.acceptOnPort();
}

// Accepts a connection on the session's port. -1 when there is none, which is logged unless the
// session has stopped listening meanwhile. For want of descriptors only those are let go whose
// sender has gone: to anybody else a close would read as a rejection.
int acceptConnection(QuilSession& session) {
    int socket = tryToAccept(session);
    if (socket == -1 && isShortage(errno) && letGoOfDeadSenders() > 0) {
        socket = tryToAccept(session);
    }
    if (socket != -1) {
        return socket;
    }
    const int error = errno;
    if (error != 0) {
        QUIL_LOG(LOG_LEVEL_WARNING, "serverIfProcessData: Accept failed with errno[%d] error[%s]",
                 error, strerror(error));
    }
    if (isShortage(error)) {
        // The connection still waits, and the next pass would fail in the same way at once.
        g_isPaused = true;
        pauseIntake();
    }
    return -1;
}

}  // namespace

int openPushIntake() {
    return setAside().descriptor();
}

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
    if (session->getClientObjectId().empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING, "serverIfProcessData: getClientObjectId is empty");
        port->setWaitingForClient(true);
        return;
    }
    OwnedSocket accepted(acceptConnection(*session));
    if (accepted.get() == -1) {
        return;
    }
    if (!isAllowed(accepted.get())) {
        return;
    }
    accepted.reset(moveToPushDescriptor(accepted.release()));
    auto connection = std::make_unique<PushConnection>(accepted.get(), *session);
    accepted.release();
    if (connection->advance() == PushConnection::Progress::Waits) {
        setAside().add(std::move(connection));
    }
}

void servePushIntake() {
    setAside().serve();
}

void postponePushIntake(Clock::duration time) {
    setAside().postpone(time);
}

int countSetAsideConnections() {
    return static_cast<int>(setAside().size());
}

bool isPushIntakePaused() {
    if (!g_isPaused || Clock::now() < g_pausedUntil) {
        return g_isPaused;
    }
    lookForDeadSenders();
    if (isDescriptorLeftForPush()) {
        g_isPaused = false;
    } else {
        pauseIntake();
    }
    return g_isPaused;
}
