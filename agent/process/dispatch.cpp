// One node: copy, dispatch by type, destroy. What goes to an application is the copy, which the
// reply takes over; a registration works on the node's own message, because that is where it leaves
// its result.

#include "agent/process/dispatch.hpp"

#include <array>
#include <memory>
#include <utility>

#include "agent/messages/message_factory.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/pushes/dead_senders.hpp"
#include "agent/pushes/parked_pushes.hpp"
#include "agent/pushes/push_delivery.hpp"
#include "agent/registration/server_registration.hpp"
#include "agent/requests/request_completion.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/locks.hpp"
#include "agent/support/log.hpp"

namespace {

// Taken briefly after every pop and around the destruction of each node: whoever holds it holds the
// handler still between two messages.
QuilMutex& handlerLock() {
    static QuilMutex* const lock = new QuilMutex();
    return *lock;
}

// Nodes that cannot be copied are not destroyed at once; the newest few are kept for whoever looks
// into a running or crashed agent, and no more, so that a client that sends unknown names cannot
// make the agent hold memory for ever.
constexpr std::size_t kUndispatchedNodesKept = 32;

enum class NodeOutcome {
    Done,         // the node has been dealt with
    AwaitsClient  // a push that its application is to be told of when it is back; the node stays
};

void retain(std::unique_ptr<QuilMessageNode> node) {
    using Nodes = std::array<std::unique_ptr<QuilMessageNode>, kUndispatchedNodesKept>;
    static auto* const retained = new Nodes();
    static std::size_t next = 0;
    const QuilLock lock(handlerLock());
    (*retained)[next] = std::move(node);
    next = (next + 1) % kUndispatchedNodesKept;
}

void handleRegistration(QuilBaseMessage* message, bool isRegister) {
    auto* request = dynamic_cast<QuilServerRegMessage*>(message);
    if (request == nullptr) {
        return;
    }
    // It needs descriptors of its own, which those who are gone may hold.
    lookForDeadSenders();
    if (isRegister) {
        processServerRegister(*request);
        addCreateChannelCompletedMessage(*request);
    } else {
        processServerDeregister(*request);
        addDestroyChannelCompletedMessage(*request);
    }
}

NodeOutcome handlePush(std::unique_ptr<QuilBaseMessage> copy) {
    // Another class of message under a push's number is nothing that could be delivered.
    if (dynamic_cast<QuilPushMessage*>(copy.get()) == nullptr) {
        return NodeOutcome::Done;
    }
    std::unique_ptr<QuilPushMessage> push(static_cast<QuilPushMessage*>(copy.release()));
    return pushNotification(std::move(push)) == PushOutcome::AwaitsClient
               ? NodeOutcome::AwaitsClient
               : NodeOutcome::Done;
}

NodeOutcome dispatch(const QuilMessageNode& node, std::unique_ptr<QuilBaseMessage> copy) {
    switch (node.getType()) {
        case MESSAGE_CREATE_SESSION_COMPLETE:
        case MESSAGE_CREATE_CHANNEL_COMPLETE:
        case MESSAGE_RESPONSE:
            sendCallbackResponse(std::move(copy));
            break;
        case MESSAGE_DESTROY_CHANNEL_COMPLETE:
            processDestroyChannelCallback(std::move(copy));
            break;
        case MESSAGE_PUSH:
            return handlePush(std::move(copy));
        case MESSAGE_SERVER_REGISTER:
            handleRegistration(node.getMessage(), true);
            break;
        case MESSAGE_SERVER_DEREGISTER:
            handleRegistration(node.getMessage(), false);
            break;
        default:
            break;
    }
    return NodeOutcome::Done;
}

// A copy of the node's message, ready to be dispatched; null when the node cannot be copied. Throws
// without memory.
std::unique_ptr<QuilBaseMessage> takeCopy(const QuilMessageNode& node) {
    std::unique_ptr<QuilBaseMessage> copy = QuilMessageFactory::getInstance()->copyMessage(&node);
    if (copy == nullptr) {
        return nullptr;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "app id[%s] clientId[%s]", copy->getName().c_str(),
             copy->getClientId().c_str());
    if (auto* push = dynamic_cast<QuilPushMessage*>(copy.get())) {
        push->createData();
    }
    return copy;
}

NodeOutcome handle(std::unique_ptr<QuilMessageNode>* node) {
    { const QuilLock lock(handlerLock()); }
    QUIL_LOG(LOG_LEVEL_INFO, "%d received", (*node)->getType());
    std::unique_ptr<QuilBaseMessage> copy;
    try {
        copy = takeCopy(**node);
    } catch (...) {
        closeConnectionOf(**node);  // nobody has taken it over
        throw;
    }
    if (copy == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "QuilMessageFactory::copyMessage returns NULL");
        retain(std::move(*node));
        return NodeOutcome::Done;
    }
    return dispatch(**node, std::move(copy));
}

// Handles the node; destroys it unless it awaits its application's client.
NodeOutcome handleAlone(std::unique_ptr<QuilMessageNode>* node) {
    const int type = (*node)->getType();
    NodeOutcome outcome = NodeOutcome::Done;
    try {
        outcome = handle(node);
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING, "msgHandler: exception occurred when handling message [%d]",
                 type);
    }
    if (outcome == NodeOutcome::Done && *node != nullptr) {
        const QuilLock lock(handlerLock());
        node->reset();
    }
    return outcome;
}

// Whether it is time, after a message of that type, for the application's parked pushes: it has
// been told that it has a session again, or has no channel any more, and they are closed.
bool arePushesDue(int type, const std::string& appId) {
    if (type == MESSAGE_CREATE_SESSION_COMPLETE) {
        return true;
    }
    if (type != MESSAGE_DESTROY_CHANNEL_COMPLETE || !ParkedPushes::getInstance()->hasAny(appId)) {
        return false;
    }
    const QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
    return session == nullptr || !session->isRegistered();
}

}  // namespace

void handleNode(std::unique_ptr<QuilMessageNode>* node) {
    ParkedPushes* parked = ParkedPushes::getInstance();
    const int type = (*node)->getType();
    std::string appId;
    bool isParked = false;
    try {
        appId = (*node)->getMessage() == nullptr ? "" : (*node)->getMessage()->getName();
        isParked = type == MESSAGE_PUSH && parked->hasAny(appId);
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING, "msgHandler: exception occurred when handling message [%d]",
                 type);
        closeConnectionOf(**node);
        node->reset();
        return;
    }
    // Behind those that came before it, or because its application is away.
    if (isParked || handleAlone(node) == NodeOutcome::AwaitsClient) {
        parked->park(std::move(*node));
    } else if (arePushesDue(type, appId)) {
        deliverParkedPushes(appId);
    }
}

void handleOutOfTurn(std::unique_ptr<QuilMessageNode>* node) {
    handleAlone(node);
}

void deliverParkedPushes(const std::string& appId) {
    ParkedPushes* parked = ParkedPushes::getInstance();
    for (ParkedPushes::Parked next = parked->takeFirst(appId); next.node != nullptr;
         next = parked->takeFirst(appId)) {
        if (handleAlone(&next.node) == NodeOutcome::AwaitsClient) {
            parked->putBack(std::move(next));
            return;
        }
    }
}
