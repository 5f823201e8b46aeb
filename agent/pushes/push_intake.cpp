// One connection at a time is accepted on a port, so that a busy port keeps neither other ports nor
// clients waiting. Accepted sockets are moved to high numbers: they are never selected on, and the
// low numbers, which alone can be, are left to listening sockets.

#include "agent/pushes/push_intake.hpp"

#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "agent/configuration/config_manager.hpp"
#include "agent/connections/owned_socket.hpp"
#include "agent/pushes/allowed_senders.hpp"
#include "agent/pushes/dead_senders.hpp"
#include "agent/pushes/push_connection.hpp"
#include "agent/pushes/set_aside.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/high_descriptor.hpp"
#include "agent/support/log.hpp"

namespace {

using Clock = PushConnection::Clock;

constexpr std::chrono::milliseconds kPauseAfterShortage{100};
constexpr std::chrono::seconds kPauseBetweenRefusals{1};
constexpr int kGivenUpAtOnce = 8;
constexpr int kReservedDescriptors = 32;
constexpr rlim_t kDescriptorsToReserveFrom = 1024;

Clock::time_point g_pausedUntil{};

SetAsideConnections& setAside() {
    static auto* const connections = new SetAsideConnections();
    return *connections;
}

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// The last few numbers are for what is not a push: talks with push servers, and the object service
// when it comes back. Senders may take one now and then, and room is made at once. Where there are
// few descriptors at all, pushes have the numbers that are left, and nothing is reserved.
int firstReservedDescriptor() {
    static const int first = [] {
        rlimit limit{};
        const bool isLarge = getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
                             limit.rlim_cur >= kDescriptorsToReserveFrom &&
                             limit.rlim_cur <= INT_MAX;
        return isLarge ? static_cast<int>(limit.rlim_cur) - kReservedDescriptors : INT_MAX;
    }();
    return first;
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

// Gives up what will be missed least: connections of senders that are gone, else the one whose push
// has been awaited in vain for longest, else those whose answers have; a few of these, so that
// something is left for who asks next, which may be a talk with a push server. False when there is
// none of these.
bool makeRoom() {
    QuilSessionManager* sessions = QuilSessionManager::getInstance();
    if (letGoOfDeadSenders() > 0 || setAside().closeLongestSilent()) {
        return true;
    }
    int given = 0;
    while (given < kGivenUpAtOnce && sessions->giveUpOldestPushSocket()) {
        ++given;
    }
    return given > 0;
}

// Accepts a connection on the session's port. -1 when there is none, which is logged unless the
// session has stopped listening meanwhile.
int acceptConnection(QuilSession& session) {
    int socket = session.acceptOnPort();
    if (socket == -1 && isShortage(errno) && makeRoom()) {
        socket = session.acceptOnPort();
    }
    if (socket != -1) {
        socket = moveToHighDescriptor(socket);
        QuilSessionManager* sessions = QuilSessionManager::getInstance();
        if (socket >= firstReservedDescriptor() && letGoOfDeadSenders() == 0) {
            sessions->giveUpOldestPushSocket();
        }
        return socket;
    }
    const int error = errno;
    if (error != 0) {
        QUIL_LOG(LOG_LEVEL_WARNING, "serverIfProcessData: Accept failed with errno[%d] error[%s]",
                 error, strerror(error));
    }
    if (isShortage(error)) {
        // The connection still waits, and the next pass would fail in the same way at once.
        g_pausedUntil = Clock::now() + kPauseAfterShortage;
        setAside().wakeAt(g_pausedUntil);
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
    return Clock::now() < g_pausedUntil;
}
