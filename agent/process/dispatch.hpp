// What becomes of a message that has come out of the queue.

#pragma once

#include <memory>

#include "agent/messages/message_node.hpp"

enum class NodeOutcome {
    Done,         // the node is gone
    AwaitsClient  // a push that its application is to be told of when it is back; the node stays
};

// Does what the node asks for, and destroys it: sends a reply, delivers a push, or talks to a push
// data server, which blocks until that is over. Nothing that a client, a sender or a server sends
// leaves this as an exception. Any thread, but one at a time for one application.
NodeOutcome handleNode(std::unique_ptr<QuilMessageNode>* node);
