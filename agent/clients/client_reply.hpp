// Answers and notifications to applications. docs/formats/replies.md shows them as applications
// read them.

#pragma once

#include <memory>

#include "agent/messages/base_message.hpp"

// Turns a message into one object addressed to its client and writes it to the served object in one
// write, on whichever thread calls. Takes the message over and destroys it, whatever the outcome; a
// null message does nothing. Failures of the write are logged as the number of bytes written, and
// nothing else comes of them: a client that is gone is no error.
void sendMessage(std::unique_ptr<QuilBaseMessage> message);
