// What becomes of a message that has come out of the queue.

#pragma once

#include <memory>

#include "agent/messages/message_node.hpp"

// Does what the node asks for, and destroys it: sends a reply, delivers a push, or talks to a push
// data server, which blocks until that is over. Nothing that a client, a sender or a server sends
// leaves this as an exception. Any thread, but one at a time for one application.
void handleNode(std::unique_ptr<QuilMessageNode> node);
