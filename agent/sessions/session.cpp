// A session is touched by both threads. The rule that keeps it simple: every public operation takes
// the session's lock for as long as it runs, and may be called by a holder of the lock (states call
// back while an event runs). The one exception is acknowledgePush, which sends outside the locks.

#include "agent/sessions/session.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "agent/connections/acknowledgement.hpp"
#include "agent/connections/hang_up.hpp"
#include "agent/connections/listening_socket.hpp"
#include "agent/connections/push_descriptors.hpp"
#include "agent/sessions/port_changes.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "agent/support/decoder_string.hpp"
#include "agent/support/high_descriptor.hpp"
#include "agent/support/log.hpp"

namespace {

// No limit is so low that so few are too many; asking for it costs a system call.
constexpr std::size_t kFewPushSockets = 8;

using Lock = QuilLock<QuilRecursiveMutex>;

// Whether nobody waits on that connection any more, as far as can be told.
bool isDead(const QuilPushSocket& kept) {
    return hasHungUpFor(kept.getSocket(), patienceWithHungUp());
}

int closeSocketOfPort(int socket) {
    const QuilLock lock(portSocketLock());
    return close(socket);
}

}  // namespace

QuilSession::QuilSession(const std::string& providerAppId) {
    resetPort();
    m_port.setName(providerAppId);
}

QuilSession::QuilSession(const std::string& providerAppId, const std::string& clientId)
    : QuilSession(providerAppId) {
    const Lock lock(m_lock);
    m_clientId = clientId;
    m_state = std::make_unique<QuilIdleState>();
}

// Delegating makes it a whole object at once: when memory runs out further down, the destructor
// closes the socket that listenOnPort opened.
QuilSession::QuilSession(pps_decoder_t* decoder, bool sameSim)
    : QuilSession(readString(decoder, "providerApplicationId")) {
    const Lock lock(m_lock);
    m_ppgUrl = readString(decoder, "ppgUrl");
    m_launchString = readString(decoder, "launchString");
    m_token = readString(decoder, "token");
    int port = m_port.getPort();
    pps_decoder_get_int(decoder, "port", &port);
    m_port.setPort(port);
    listenOnPort();
    if (sameSim) {
        m_state = std::make_unique<QuilTerminateState>();
    } else {
        m_state = std::make_unique<QuilSimChangeState>();
    }
    QUIL_LOG(LOG_LEVEL_DEBUG,
             "load from persistent storage: appid [%s] ppgUrl [%s] token [%s] launchString [%s] "
             "port [%d] state type [%d]",
             getProviderAppId().c_str(), m_ppgUrl.c_str(), m_token.c_str(), m_launchString.c_str(),
             port, m_state->getStateType());
}

QuilSession::~QuilSession() {
    const Lock lock(m_lock);
    m_state.reset();
    stopListenOnPort();
    const QuilLock pushLock(m_pushSocketLock);
    for (const auto& entry : m_pushSockets) {
        entry.second.socket->release();
    }
}

std::string QuilSession::getClientObjectId() const {
    const Lock lock(m_lock);
    return m_clientId;
}

void QuilSession::setClientObjectId(const std::string& clientId) {
    const Lock lock(m_lock);
    m_clientId = clientId;
    if (!clientId.empty()) {
        m_port.setWaitingForClient(false);
    }
}

std::string QuilSession::getPpgUrl() const {
    const Lock lock(m_lock);
    return m_ppgUrl;
}

void QuilSession::setPpgUrl(const std::string& url) {
    const Lock lock(m_lock);
    m_ppgUrl = url;
}

std::string QuilSession::getLaunchString() const {
    const Lock lock(m_lock);
    return m_launchString;
}

void QuilSession::setLaunchString(const std::string& launchString) {
    const Lock lock(m_lock);
    m_launchString = launchString;
}

std::string QuilSession::getToken() const {
    const Lock lock(m_lock);
    return m_token;
}

void QuilSession::setToken(const std::string& token) {
    const Lock lock(m_lock);
    m_token = token;
}

std::unique_ptr<QuilBaseState> QuilSession::setState(std::unique_ptr<QuilBaseState> next) {
    const Lock lock(m_lock);
    const bool wasRegistered = isRegistered();
    m_state.swap(next);
    if (isRegistered() != wasRegistered) {
        notePortChange();
    }
    return next;
}

void QuilSession::enterState(std::unique_ptr<QuilBaseState> next) {
    const Lock lock(m_lock);
    QuilBaseState::changeState(m_state.get(), *this, std::move(next));
}

void QuilSession::processEvent(int event) {
    const Lock lock(m_lock);
    if (m_state == nullptr) {
        return;
    }
    switch (event) {
        case EVENT_CREATE:
            m_state->doCreate(*this);
            break;
        case EVENT_DELETE:
            m_state->doDelete(*this);
            break;
        case EVENT_REGISTER:
            m_state->doRegister(*this);
            break;
        case EVENT_UNREGISTER:
            m_state->doUnregister(*this);
            break;
        default:
            break;
    }
}

int QuilSession::getStateType() const {
    const Lock lock(m_lock);
    return m_state == nullptr ? STATE_NONE : m_state->getStateType();
}

bool QuilSession::isCreated() const {
    return getStateType() == STATE_CREATE;
}

bool QuilSession::isDeleted() const {
    return getStateType() == STATE_DELETE;
}

bool QuilSession::isRegistered() const {
    const int type = getStateType();
    return type == STATE_REGISTER || type == STATE_TERMINATE || type == STATE_SIM_CHANGE;
}

bool QuilSession::isTerminated() const {
    return getStateType() == STATE_TERMINATE;
}

bool QuilSession::isSimChanged() const {
    const Lock lock(m_lock);
    if (m_state == nullptr) {
        return false;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilSession::isSimChanged: state type [%d]",
             m_state->getStateType());
    return m_state->getStateType() == STATE_SIM_CHANGE;
}

QuilChannel QuilSession::getChannel() const {
    const Lock lock(m_lock);
    QuilChannel channel;
    // One of another SIM is being given up, and stands at most until somebody asks for it anew.
    channel.isRegistered = isRegistered() && !isSimChanged();
    channel.ppgUrl = m_ppgUrl;
    if (channel.isRegistered) {
        const int socket = m_port.getSocket();
        channel.token = m_token;
        channel.port = std::max(m_port.getPort(), 0);
        channel.isListening = hasPort() && socket > 0 && socket < FIRST_HIGH_DESCRIPTOR;
    }
    return channel;
}

void QuilSession::listenOnPort() {
    const Lock lock(m_lock);
    const int port = m_port.getPort();
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilSession::listenOnPort: before: port[%d] fd[%d]", port,
             m_port.getSocket());
    if (port < 1 || m_port.getSocket() != -1) {
        return;
    }
    const int socket = serverIfInit(port);
    m_port.setSocket(socket);
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilSession::listenOnPort: after: port {%d] fd[%d]", port, socket);
    if (socket >= FIRST_HIGH_DESCRIPTOR) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSession::listenOnPort: port[%d] fd[%d] is beyond what can be watched", port,
                 socket);
    }
}

void QuilSession::listenOn(int port) {
    const Lock lock(m_lock);
    if (m_port.getPort() != port && m_port.getSocket() != -1) {
        stopListenOnPort();
    }
    m_port.setPort(port);
    listenOnPort();
}

void QuilSession::stopListenOnPort() {
    const Lock lock(m_lock);
    if (isTerminated()) {
        return;
    }
    const int socket = m_port.getSocket();
    m_port.setSocket(-1);  // before it is shut down, so that the loop lets it be from now on
    errno = 0;
    if (socket > 0) {
        const int result = shutdown(socket, SHUT_RD);
        QUIL_LOG(LOG_LEVEL_DEBUG, "stopListenOnPort: shutdown fd %d returned %d and errno %d",
                 socket, result, errno);
        // A failed shutdown leaves the descriptor open, on purpose: it may no longer be ours to
        // close.
        if (result == 0) {
            const int closed = closeSocketOfPort(socket);
            QUIL_LOG(LOG_LEVEL_DEBUG, "stopListenOnPort: close fd %d returned %d", socket, closed);
        }
    }
    resetPort();
}

int QuilSession::acceptOnPort() {
    const Lock lock(m_lock);
    if (m_port.getSocket() == -1) {
        errno = 0;
        return -1;
    }
    return accept4(m_port.getSocket(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

int QuilSession::getChannelRequests() const {
    const Lock lock(m_lock);
    return m_channelRequests;
}

void QuilSession::countChannelRequest() {
    const Lock lock(m_lock);
    ++m_channelRequests;
}

bool QuilSession::hasNewerChannelThan(int channelRequests) const {
    const Lock lock(m_lock);
    return m_channelRequests > channelRequests;
}

bool QuilSession::endChannel(int channelRequests) {
    const Lock lock(m_lock);
    if (hasNewerChannelThan(channelRequests)) {
        return false;
    }
    enterState(makeState<QuilDeleteState>());
    stopListenOnPort();
    return true;
}

void QuilSession::resetPort() {
    const Lock lock(m_lock);
    m_port.setSocket(-1);
    m_port.setPort(-1);
    m_port.setWaitingForClient(false);
    // Kept on purpose: every stop also starts the push-socket lock anew. Whoever takes that lock
    // holds m_lock, as this function does, so nobody can be holding it now.
    m_pushSocketLock.reinitialise();
}

int QuilSession::addPushSocket(const std::string& pushId, int socket) {
    if (socket < 1) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSession::addPushSocket -- attempt to add invalid client Push Socket");
        return 0;
    }
    const Lock lock(m_lock);
    int result = 0;
    std::shared_ptr<QuilPushSocket> pushSocket;
    try {
        pushSocket = std::make_shared<QuilPushSocket>(pushId, socket);
        QUIL_LOG(LOG_LEVEL_DEBUG, "QuilSession::addPushSocket: adding push id[%s] socket [%d]",
                 pushId.c_str(), socket);
        const QuilLock pushLock(m_pushSocketLock);
        makeRoomForPushSocket(pushId);
        if (m_pushSockets.count(pushId) == 0) {
            const std::uint64_t number = ++m_lastPushSocketNumber;
            const auto age = m_pushSocketsByAge.emplace_hint(m_pushSocketsByAge.end(), number,
                                                             m_pushSockets.end());
            try {
                age->second =
                    m_pushSockets.emplace(pushId, KeptPushSocket{pushSocket, number}).first;
            } catch (...) {
                m_pushSocketsByAge.erase(age);
                throw;
            }
            m_pushSocketCount = static_cast<int>(m_pushSockets.size());
            result = 1;
        }
    } catch (...) {
        if (pushSocket == nullptr) {
            close(socket);
        }
        QUIL_LOG(
            LOG_LEVEL_WARNING,
            "QuilSession::addPushSocket: exception occurred when adding push id[%s] socket [%d]",
            pushId.c_str(), socket);
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilSession::addPushSocket: return_code = %d", result);
    return result;
}

// A sender that has hung up gives its id to the next push under it at once: that is its own retry,
// and whatever the application answers is for both. The oldest of too many makes room for a
// descriptor.
void QuilSession::makeRoomForPushSocket(const std::string& pushId) {
    const auto held = m_pushSockets.find(pushId);
    if (held != m_pushSockets.end() &&
        hasHungUpFor(held->second.socket->getSocket(), std::chrono::milliseconds(0))) {
        erasePushSocket(held);
    }
    while (m_pushSockets.size() >= kFewPushSockets &&
           m_pushSockets.size() >= pushDescriptors().mostKeptOfOneSession) {
        giveUpOldest();
    }
}

void QuilSession::giveUpOldest() {
    const auto oldest = m_pushSocketsByAge.begin()->second;
    QUIL_LOG(LOG_LEVEL_WARNING,
             "QuilSession::addPushSocket: oldest push id[%s] given up: %d wait for an answer",
             oldest->first.c_str(), static_cast<int>(m_pushSockets.size()));
    erasePushSocket(oldest);
}

QuilSession::PushSockets::iterator QuilSession::erasePushSocket(PushSockets::iterator kept) {
    m_pushSocketsByAge.erase(kept->second.number);
    const auto next = m_pushSockets.erase(kept);
    m_pushSocketCount = static_cast<int>(m_pushSockets.size());
    return next;
}

int QuilSession::letGoOfDeadPushSockets() {
    const Lock lock(m_lock);
    const QuilLock pushLock(m_pushSocketLock);
    int count = 0;
    for (auto kept = m_pushSockets.begin(); kept != m_pushSockets.end();) {
        if (!isDead(*kept->second.socket)) {
            ++kept;
            continue;
        }
        QUIL_LOG(LOG_LEVEL_DEBUG, "QuilSession: sender of push id[%s] hung up, let go",
                 kept->first.c_str());
        kept = erasePushSocket(kept);
        ++count;
    }
    return count;
}

std::shared_ptr<QuilPushSocket> QuilSession::getPushSocket(const std::string& pushId) const {
    QUIL_LOG(LOG_LEVEL_DEBUG, "getPushSocket: get [%s] size of map %d", pushId.c_str(),
             m_pushSocketCount.load());
    if (pushId.empty()) {
        return nullptr;
    }
    const Lock lock(m_lock);
    const QuilLock pushLock(m_pushSocketLock);
    const auto found = m_pushSockets.find(pushId);
    return found == m_pushSockets.end() ? nullptr : found->second.socket;
}

void QuilSession::deletePushSocket(const std::string& pushId) {
    // The lookup's wording, kept as people search logs for it.
    QUIL_LOG(LOG_LEVEL_DEBUG, "getPushSocket: get [%s] map size [%d]", pushId.c_str(),
             m_pushSocketCount.load());
    if (pushId.empty()) {
        return;
    }
    const Lock lock(m_lock);
    const QuilLock pushLock(m_pushSocketLock);
    try {
        const auto found = m_pushSockets.find(pushId);
        if (found != m_pushSockets.end()) {
            erasePushSocket(found);
            QUIL_LOG(LOG_LEVEL_DEBUG, "deletePushSocket: map size[%d]", m_pushSocketCount.load());
        }
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "exception occurred when trying to get push socket for pushId=[%s]",
                 pushId.c_str());
    }
}

bool QuilSession::giveBackPushSocket(const std::string& pushId, int socket) {
    const Lock lock(m_lock);
    const QuilLock pushLock(m_pushSocketLock);
    const auto found = m_pushSockets.find(pushId);
    if (found == m_pushSockets.end() || found->second.socket->getSocket() != socket) {
        return false;
    }
    found->second.socket->release();
    erasePushSocket(found);
    return true;
}

void QuilSession::acknowledgePush(const std::string& pushId, bool sendAck) {
    const std::shared_ptr<QuilPushSocket> pushSocket = getPushSocket(pushId);
    if (pushSocket == nullptr) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Failed to find pushId[%s]", pushId.c_str());
        return;
    }
    if (sendAck) {
        sendAcknowledgement(pushSocket->getSocket());
    }
    deletePushSocket(pushId);
}

void QuilSession::save(pps_encoder_t* encoder) const {
    const Lock lock(m_lock);
    const std::string appId = getProviderAppId();
    pps_encoder_start_object(encoder, nullptr);
    pps_encoder_add_string(encoder, "providerApplicationId", appId);
    QUIL_LOG(LOG_LEVEL_DEBUG, "Save: appid [%s] ppgUrl [%s]", appId.c_str(), m_ppgUrl.c_str());
    pps_encoder_add_string(encoder, "ppgUrl", m_ppgUrl);
    pps_encoder_add_string(encoder, "launchString", m_launchString);
    pps_encoder_add_string(encoder, "token", m_token);
    pps_encoder_add_int(encoder, "port", m_port.getPort());
    pps_encoder_end_object(encoder);
}
