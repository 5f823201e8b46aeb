// From a push that has been read to its application, and the application's answer back to the
// sender.

#pragma once

#include <memory>
#include <string>

#include "agent/messages/push_message.hpp"

// Hands a push to its application. The connection of a push whose sender waits is kept in the
// session first, under the push id. A push with an error, for an unknown application or for a
// session that is not registered is closed without a word. Message handler thread.
void pushNotification(std::unique_ptr<QuilPushMessage> push);

// The application's answer to a push: the acknowledgement and a close, or only a close. The
// application hears nothing back, also when the push id is unknown (which is logged). Main thread.
void quilAccept(const std::string& appId, const std::string& pushId, const std::string& clientId);
void quilRejectPush(const std::string& appId, const std::string& pushId,
                    const std::string& clientId);
