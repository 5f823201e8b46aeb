// Answers and notifications to applications. docs/formats/replies.md shows them as applications
// read them.

#pragma once

#include <memory>

#include "agent/messages/base_message.hpp"

enum class SendResult {
    Written,     // or had nothing to be written
    Refused,     // the object service did not take it: the client's queue is full, or the like
    ServiceGone  // the object service has ended, or had ended since the message was addressed
};

// Turns a message into one object addressed to its client and writes it to the served object in one
// write, on whichever thread calls. Takes the message over and destroys it, whatever the outcome; a
// null message does nothing. Failures of the write are logged as the number of bytes written; a
// client that is gone is no error. A message for nobody in particular (no client id) goes to all.
SendResult sendMessage(std::unique_ptr<QuilBaseMessage> message);
