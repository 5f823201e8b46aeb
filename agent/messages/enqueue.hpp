// Puts messages for the message handler thread into the queue: replies, and what the handler has to
// ask a push data server.

#pragma once

#include <memory>
#include <string>

#include "agent/messages/base_message.hpp"

// Queues a message for the message handler thread, any thread. A null `message` stands for the
// reply message of `type`; for a type without one nothing happens. `errorCode` replaces whatever
// code the message carries.
void addMessage(int errorCode, int type, const std::string& appId, const std::string& id,
                const std::string& clientId, std::unique_ptr<QuilBaseMessage> message);

// addMessage of the reply message of `type`.
void addReplyMessage(int errorCode, int type, const std::string& appId, const std::string& id,
                     const std::string& clientId);

// addReplyMessage of the type that belongs to the request name.
void addErrorReply(int errorCode, const std::string& requestName, const std::string& appId,
                   const std::string& id, const std::string& clientId);
