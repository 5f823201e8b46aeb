// Queueing internal messages, and finishing what requests began once the push data server has
// answered.

#pragma once

#include <memory>
#include <string>

#include "agent/messages/base_message.hpp"
#include "agent/messages/reply_messages.hpp"

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

// The rest runs on the message handler thread.

// Sends a queued reply. With no session for its application, whatever it was going to say becomes
// code 500.
void sendCallbackResponse(std::unique_ptr<QuilBaseMessage> message);

// After a registration: moves the session to Register with the device PIN as token, wakes the main
// loop, queues "onCreateChannelComplete" and, on success, saves the sessions. The reply always goes
// out without an error code: an application knows a failure by the empty token.
void addCreateChannelCompletedMessage(QuilServerRegMessage& request);

// After a deregistration: queues the destroy-channel completion with its result.
void addDestroyChannelCompletedMessage(const QuilServerRegMessage& request);

// Ends a channel: on success the session goes to Delete and stops listening. The application hears
// "onDestroyChannelComplete", or "onSimChange" when that is why it ended.
void processDestroyChannelCallback(std::unique_ptr<QuilBaseMessage> message);

// After a port has been freed: wakes the main loop and saves the sessions. Any thread.
void cleanup();
