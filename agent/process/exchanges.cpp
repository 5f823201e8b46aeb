// A lane lives from the node that begins an exchange until it is empty. It is worked off by one
// thread at a time, whose own messages for the application (the completion of an exchange) take the
// way through the queue and so stand behind all that was queued before them.

#include "agent/process/exchanges.hpp"

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <new>
#include <utility>

#include "agent/messages/message_factory.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/process/dispatch.hpp"
#include "agent/requests/request_completion.hpp"
#include "agent/support/log.hpp"
#include "agent/support/wake_up.hpp"

namespace {

bool beginsExchange(const QuilMessageNode& node) {
    return node.getType() == MESSAGE_SERVER_REGISTER || node.getType() == MESSAGE_SERVER_DEREGISTER;
}

// A completion; an application that is refused its "createChannel" gets a message of the same type,
// with a code.
bool endsExchange(const QuilMessageNode& node) {
    return (node.getType() == MESSAGE_CREATE_CHANNEL_COMPLETE &&
            node.getMessage()->getErrorCode() == RESULT_OK) ||
           node.getType() == MESSAGE_DESTROY_CHANNEL_COMPLETE;
}

// Of a node and its message, beside the texts in it.
constexpr std::size_t kNodeBytes = 320;

// What a request makes its lane hold. Nothing for pushes, whose ports are left alone when there are
// many, and for what ends an exchange, which is one for each that was begun.
std::size_t bytesOfRequest(const QuilMessageNode& node) {
    const QuilBaseMessage* message = node.getMessage();
    if (message == nullptr || node.getType() == MESSAGE_PUSH || endsExchange(node)) {
        return 0;
    }
    return kNodeBytes + message->getName().size() + message->getId().size() +
           message->getClientId().size() + message->getArgument().size();
}

// An exchange that there is no room for has failed before it began.
void refuseExchange(const QuilMessageNode& node) {
    const QuilBaseMessage& request = *node.getMessage();
    const bool isRegistration = node.getType() == MESSAGE_SERVER_REGISTER;
    std::unique_ptr<QuilBaseMessage> answer = QuilMessageFactory::getInstance()->createMessage(
        isRegistration ? MESSAGE_CREATE_CHANNEL_COMPLETE : MESSAGE_DESTROY_CHANNEL_COMPLETE,
        request.getName(), request.getId(), request.getClientId());
    answer->setLife(request.getLife());
    if (!isRegistration) {  // a failed creation is known by its empty token
        answer->setErrorCode(RESULT_INTERNAL_FAILURE);
    }
    sendCallbackResponse(std::move(answer));
}

std::string appIdOf(const QuilMessageNode& node) {
    return node.getMessage() == nullptr ? "" : node.getMessage()->getName();
}

// Scheme, host and port of the push data server, as the application wrote them.
std::string serverOf(const QuilMessageNode& node) {
    const auto* request = dynamic_cast<const QuilServerRegMessage*>(node.getMessage());
    if (request == nullptr) {
        return "";
    }
    const std::string& url = request->getPpgUrl();
    const std::size_t scheme = url.find("://");
    return url.substr(0, url.find('/', scheme == std::string::npos ? 0 : scheme + 3));
}

}  // namespace

QuilExchanges* QuilExchanges::getInstance() {
    static QuilExchanges* const instance = []() -> QuilExchanges* {
        try {
            return new QuilExchanges();
        } catch (...) {
            return nullptr;
        }
    }();
    return instance;
}

// So that nothing has to be allocated where nobody could say that it failed.
QuilExchanges::QuilExchanges() {
    m_running.reserve(kMostThreads);
}

bool QuilExchanges::take(std::unique_ptr<QuilMessageNode>* node) {
    const bool begins = beginsExchange(**node);
    std::size_t newlyFull = 0;
    Appended appended = Appended::Yes;
    try {
        appended = append(node, &newlyFull);
        if (newlyFull > 0) {
            QUIL_LOG(LOG_LEVEL_WARNING,
                     "msgHandler: app id [%s]: %d messages wait for its push data server, further "
                     "requests do not wait for their turn",
                     appIdOf(**node).c_str(), static_cast<int>(newlyFull));
        }
        if (appended == Appended::NoRoom) {
            answerPastLane(node);
            return true;
        }
    } catch (const std::exception& thrown) {
        QUIL_LOG(LOG_LEVEL_WARNING, "msgHandler: exception occurred when handling message [%d]: %s",
                 (*node)->getType(), thrown.what());
        closeConnectionOf(**node);
        node->reset();
        return true;
    }
    if (appended == Appended::Yes && begins) {
        startThread();
    }
    return appended == Appended::Yes;
}

// For what there is no room for in its application's lane.
void QuilExchanges::answerPastLane(std::unique_ptr<QuilMessageNode>* node) {
    if (beginsExchange(**node)) {
        refuseExchange(**node);
        node->reset();
        return;
    }
    const bool hasReturned = (*node)->getType() == MESSAGE_CREATE_SESSION_COMPLETE;
    const std::string appId = appIdOf(**node);
    handleOutOfTurn(node);
    if (!hasReturned) {
        return;
    }
    {
        const QuilLock lock(m_lock);
        const auto found = m_lanes.find(appId);
        if (found != m_lanes.end()) {
            found->second.hasReturned = true;
            return;
        }
    }
    deliverParkedPushes(appId);
}

bool QuilExchanges::hasRoomFor(const Lane& lane, std::size_t bytes) const {
    const std::size_t held = lane.bytes + bytes;
    return held <= kMostBytes && (held <= kFewBytes || m_bytes + bytes <= kMostBytesInAll);
}

// Puts the node into its application's lane; makes one when it begins an exchange. `newlyFull` gets
// how many wait in a lane that there has been room in so far.
QuilExchanges::Appended QuilExchanges::append(std::unique_ptr<QuilMessageNode>* node,
                                              std::size_t* newlyFull) {
    const std::string appId = appIdOf(**node);
    const std::size_t bytes = bytesOfRequest(**node);
    const QuilLock lock(m_lock);
    const auto found = m_lanes.find(appId);
    if (found != m_lanes.end()) {
        Lane& lane = found->second;
        if (bytes > 0 && !hasRoomFor(lane, bytes)) {
            *newlyFull = std::exchange(lane.isFull, true) ? 0 : lane.nodes.size();
            return Appended::NoRoom;
        }
        lane.nodes.push_back(std::move(*node));
        lane.bytes += bytes;
        m_bytes += bytes;
        if (lane.nodes.size() >= kManyNodes && !lane.isCrowded) {
            lane.isCrowded = true;
            ++m_crowded;
        }
        return Appended::Yes;
    }
    if (!beginsExchange(**node)) {
        return Appended::NoLane;
    }
    const std::string server = serverOf(**node);
    queueLane(appId, server);
    try {
        makeLane(appId, server, node);
    } catch (...) {
        m_waiting[server].pop_back();
        std::erase_if(m_waiting, [](const auto& entry) { return entry.second.empty(); });
        throw;
    }
    return Appended::Yes;
}

// Either all of it happens or, without memory, nothing.
void QuilExchanges::makeLane(const std::string& appId, const std::string& server,
                             std::unique_ptr<QuilMessageNode>* node) {
    Lane lane;
    lane.server = server;
    lane.nodes.push_back(nullptr);
    lane.bytes = bytesOfRequest(**node);
    Lane& made = m_lanes.emplace(appId, std::move(lane)).first->second;
    made.nodes.front() = std::move(*node);
    m_bytes += made.bytes;
}

void QuilExchanges::queueLane(const std::string& appId, const std::string& server) {
    std::deque<std::string>& waiting = m_waiting[server];
    try {
        waiting.push_back(appId);
    } catch (...) {
        std::erase_if(m_waiting, [](const auto& entry) { return entry.second.empty(); });
        throw;
    }
}

void QuilExchanges::startThread() {
    {
        const QuilLock lock(m_lock);
        if (m_threads >= kMostThreads || findNext() == m_waiting.end()) {
            return;  // one of those that run takes it later
        }
        ++m_threads;
    }
    pthread_t thread;
    if (pthread_create(&thread, nullptr, runThread, this) == 0) {
        pthread_detach(thread);
        return;
    }
    QUIL_LOG(LOG_LEVEL_WARNING, "No thread for an exchange with a push data server");
    work();
}

void* QuilExchanges::runThread(void* exchanges) {
    pthread_setname_np(pthread_self(), "PUSH SERVER");
    static_cast<QuilExchanges*>(exchanges)->work();
    return nullptr;
}

// Works off lanes until there is none that may be worked off. Without memory it ends early; the
// next exchange starts another thread.
void QuilExchanges::work() {
    std::string appId = beginNext();
    while (!appId.empty()) {
        workOff(appId, true);
        appId = beginNext();
    }
    flushLogEcho();
}

std::string QuilExchanges::beginNext() {
    const QuilLock lock(m_lock);
    std::string appId;
    try {
        appId = takeNext();
    } catch (...) {
    }
    if (appId.empty()) {
        --m_threads;
    }
    return appId;
}

bool QuilExchanges::isAllowed(const std::string& server) const {
    const auto withServer = std::count_if(m_running.begin(), m_running.end(),
                                          [&](const Lane* lane) { return lane->server == server; });
    return withServer == 0 || (withServer < kMostPerServer &&
                               m_running.size() < std::size_t{kMostThreads - kThreadsForOthers});
}

// Looks past the servers that hold enough threads, which are few, and so never far.
QuilExchanges::Waiting::iterator QuilExchanges::findNext() {
    const auto start = m_waiting.upper_bound(m_lastServer);
    for (auto at = start; at != m_waiting.end(); ++at) {
        if (isAllowed(at->first)) {
            return at;
        }
    }
    for (auto at = m_waiting.begin(); at != start; ++at) {
        if (isAllowed(at->first)) {
            return at;
        }
    }
    return m_waiting.end();
}

std::string QuilExchanges::takeNext() {
    const auto next = findNext();
    if (next == m_waiting.end()) {
        return "";
    }
    m_lastServer = next->first;  // the one step that may fail, before anything has changed
    std::string appId = std::move(next->second.front());
    next->second.pop_front();
    if (next->second.empty()) {
        m_waiting.erase(next);
    }
    m_running.push_back(&m_lanes.at(appId));
    return appId;
}

void QuilExchanges::workOff(const std::string& appId, bool mayBeginExchange) {
    for (;;) {
        Due due;
        std::unique_ptr<QuilMessageNode> node = takeFrom(appId, mayBeginExchange, &due);
        mayBeginExchange = false;
        if (due.wakeUp) {
            wakeMainLoop();
        }
        if (due.parkedPushes) {
            deliverParkedPushes(appId);
        } else if (node == nullptr) {
            return;
        } else {
            handleNode(&node);
        }
    }
}

std::unique_ptr<QuilMessageNode> QuilExchanges::takeFrom(const std::string& appId,
                                                         bool mayBeginExchange, Due* due) {
    const QuilLock lock(m_lock);
    Lane& lane = m_lanes.at(appId);
    if (lane.isCrowded && lane.nodes.size() <= kFewNodes) {
        lane.isCrowded = false;
        --m_crowded;
        due->wakeUp = true;
    }
    if (lane.nodes.size() <= kFewNodes) {
        lane.isFull = false;
    }
    if (lane.nodes.empty() && lane.hasReturned) {
        lane.hasReturned = false;
        due->parkedPushes = true;
        return nullptr;
    }
    if (lane.nodes.empty()) {
        std::erase(m_running, &lane);
        m_lanes.erase(appId);
        return nullptr;
    }
    if (beginsExchange(*lane.nodes.front()) && !mayBeginExchange && waitForTurn(appId, &lane)) {
        return nullptr;
    }
    std::unique_ptr<QuilMessageNode> node = std::move(lane.nodes.front());
    lane.nodes.pop_front();
    const std::size_t bytes = bytesOfRequest(*node);
    lane.bytes -= bytes;
    m_bytes -= bytes;
    return node;
}

// Another exchange is another turn, and may be with another server. False without memory; then it
// goes on in this turn.
bool QuilExchanges::waitForTurn(const std::string& appId, Lane* lane) {
    try {
        std::string server = serverOf(*lane->nodes.front());
        queueLane(appId, server);
        std::erase(m_running, lane);
        lane->server.swap(server);
        return true;
    } catch (...) {
        return false;
    }
}

bool QuilExchanges::isCrowded(const std::string& appId) {
    const QuilLock lock(m_lock);
    const auto found = m_lanes.find(appId);
    return found != m_lanes.end() && found->second.isCrowded;
}
