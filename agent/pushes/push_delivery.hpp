// From a push that has been read to its application.

#pragma once

#include <memory>

#include "agent/messages/push_message.hpp"

enum class PushOutcome {
    Done,
    // The object service ended before its application could be told: the push, connection included,
    // is the caller's again, to be tried anew when the application is back.
    AwaitsClient
};

// Hands a push to its application. The connection of a push whose sender waits is kept in the
// session first, under the push id. A push with an error, for an unknown application or for a
// session that is not registered is closed without a word. Any thread, one at a time for one
// application.
PushOutcome pushNotification(std::unique_ptr<QuilPushMessage> push);
