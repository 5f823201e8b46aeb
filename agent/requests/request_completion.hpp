// Finishes what requests began: sends queued replies, and once the push data server has answered,
// moves the session on and tells the application. Any thread, one at a time for one application.

#pragma once

#include <memory>
#include <string>

#include "agent/messages/base_message.hpp"
#include "agent/messages/reply_messages.hpp"

// Sends a queued reply. With no session for its application, whatever it was going to say becomes
// code 500.
void sendCallbackResponse(std::unique_ptr<QuilBaseMessage> message);

// After a registration: moves the session to Register with the device PIN as token, wakes the main
// loop, queues "onCreateChannelComplete" and, on success, saves the sessions. The reply always goes
// out without an error code: an application knows a failure by the empty token.
void addCreateChannelCompletedMessage(QuilServerRegMessage& request);

// After a deregistration: queues the destroy-channel completion with its result.
void addDestroyChannelCompletedMessage(const QuilServerRegMessage& request);

// Ends a channel: on success the session goes to Delete and stops listening, unless the application
// has asked for a channel again since it asked for the end of this one: that channel stands. The
// application hears "onDestroyChannelComplete", or "onSimChange" when that is why it ended.
void processDestroyChannelCallback(std::unique_ptr<QuilBaseMessage> message);
