// Types 9 and 10 can be made but not copied: the handler thread drops what cannot be copied, and
// that is how replies to unknown requests end. Kept on purpose: an application that sends names
// this agent does not know hears nothing.

#include "agent/messages/message_factory.hpp"

#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/support/log.hpp"

namespace {

template <typename Message>
std::unique_ptr<QuilBaseMessage> copyAs(const QuilBaseMessage* message) {
    const auto* source = dynamic_cast<const Message*>(message);
    return source == nullptr ? nullptr : std::make_unique<Message>(*source);
}

}  // namespace

QuilMessageFactory* QuilMessageFactory::getInstance() {
    static QuilMessageFactory* const instance = new QuilMessageFactory();
    return instance;
}

int QuilMessageFactory::getMessageType(const std::string& requestName) const {
    QUIL_LOG(LOG_LEVEL_INFO, "QuilMessageFactory::getMessageType: msg [%s]", requestName.c_str());
    if (requestName == "createSession") {
        return MESSAGE_CREATE_SESSION_COMPLETE;
    }
    if (requestName == "createChannel") {
        return MESSAGE_CREATE_CHANNEL_COMPLETE;
    }
    if (requestName == "destroyChannel") {
        return MESSAGE_DESTROY_CHANNEL_COMPLETE;
    }
    return MESSAGE_UNKNOWN_REQUEST;
}

std::unique_ptr<QuilBaseMessage> QuilMessageFactory::createMessage(
    const std::string& requestName, const std::string& appId, const std::string& id,
    const std::string& clientId) const {
    QUIL_LOG(LOG_LEVEL_INFO, "QuilMessageFactory::createMessage: msg [%s]", requestName.c_str());
    return createMessage(getMessageType(requestName), appId, id, clientId);
}

std::unique_ptr<QuilBaseMessage> QuilMessageFactory::createMessage(
    int type, const std::string& appId, const std::string& id, const std::string& clientId) const {
    std::unique_ptr<QuilBaseMessage> message;
    switch (type) {
        case MESSAGE_CREATE_SESSION_COMPLETE:
            message = std::make_unique<QuilCreateSessionCompleteMessage>(appId, id, clientId);
            break;
        case MESSAGE_CREATE_CHANNEL_COMPLETE:
            message = std::make_unique<QuilCreateChannelCompleteMessage>(appId, id, clientId);
            break;
        case MESSAGE_DESTROY_CHANNEL_COMPLETE:
            message = std::make_unique<QuilDestroyChannelCompleteMessage>(appId, id, clientId);
            break;
        case MESSAGE_RESPONSE:
        case MESSAGE_UNKNOWN_REQUEST:
            message = std::make_unique<QuilResponseMessage>(appId, id, clientId);
            break;
        case MESSAGE_SIM_CHANGE_RESPONSE:
            message = std::make_unique<QuilResponseMessage>(appId, id, clientId);
            message->setCallbackName("onSimChange");
            break;
        default:
            return nullptr;
    }
    message->setMessageType(type);
    return message;
}

std::unique_ptr<QuilBaseMessage> QuilMessageFactory::copyMessage(
    const QuilMessageNode* node) const {
    if (node == nullptr) {
        return nullptr;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilMessageFactory::copyMessage: receive Message Type [%d]",
             node->getType());
    const QuilBaseMessage* message = node->getMessage();
    switch (node->getType()) {
        case MESSAGE_CREATE_SESSION_COMPLETE:
            return copyAs<QuilCreateSessionCompleteMessage>(message);
        case MESSAGE_CREATE_CHANNEL_COMPLETE:
            return copyAs<QuilCreateChannelCompleteMessage>(message);
        case MESSAGE_DESTROY_CHANNEL_COMPLETE:
            return copyAs<QuilDestroyChannelCompleteMessage>(message);
        case MESSAGE_RESPONSE:
            return copyAs<QuilResponseMessage>(message);
        case MESSAGE_PUSH:
            return copyAs<QuilPushMessage>(message);
        case MESSAGE_SERVER_REGISTER:
        case MESSAGE_SERVER_DEREGISTER:
            return copyAs<QuilServerRegMessage>(message);
        default:
            return nullptr;
    }
}
