// The one place that wraps a message for the queue; pushes alone, whose connection travels along,
// are queued by whoever read them.

#include "agent/messages/enqueue.hpp"

#include <utility>

#include "agent/messages/message_factory.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/support/log.hpp"

void addMessage(int errorCode, int type, const std::string& appId, const std::string& id,
                const std::string& clientId, std::unique_ptr<QuilBaseMessage> message) {
    QUIL_LOG(LOG_LEVEL_INFO, "addMessage: msg type[%d] provider id[%s] errorCode[%d]", type,
             appId.c_str(), errorCode);
    if (message == nullptr) {
        message = QuilMessageFactory::getInstance()->createMessage(type, appId, id, clientId);
    }
    if (message == nullptr) {
        return;
    }
    message->overwriteErrorCode(errorCode);
    const int messageType = message->getMessageType();
    auto node = std::make_unique<QuilMessageNode>(messageType, std::move(message));
    if (QuilMessageManager::getInstance()->push(std::move(node)) == 0) {
        QUIL_LOG(LOG_LEVEL_INFO, "addMessage: for provider app id[%s] failed.", appId.c_str());
    } else {
        QUIL_LOG(LOG_LEVEL_INFO, "addMessage: for provider app id[%s] error[%d] done.",
                 appId.c_str(), errorCode);
    }
}

void addReplyMessage(int errorCode, int type, const std::string& appId, const std::string& id,
                     const std::string& clientId) {
    addMessage(errorCode, type, appId, id, clientId, nullptr);
}

void addErrorReply(int errorCode, const std::string& requestName, const std::string& appId,
                   const std::string& id, const std::string& clientId) {
    const int type = QuilMessageFactory::getInstance()->getMessageType(requestName);
    addReplyMessage(errorCode, type, appId, id, clientId);
}
