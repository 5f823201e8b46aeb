// From a push that has been read to its application.

#pragma once

#include <memory>

#include "agent/messages/push_message.hpp"

// Hands a push to its application. The connection of a push whose sender waits is kept in the
// session first, under the push id. A push with an error, for an unknown application or for a
// session that is not registered is closed without a word. Message handler thread.
void pushNotification(std::unique_ptr<QuilPushMessage> push);
