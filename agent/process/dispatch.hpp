// What becomes of a message that has come out of the queue.

#pragma once

#include <memory>
#include <string>

#include "agent/messages/message_node.hpp"

// Does what the node asks for, and destroys it: sends a reply, delivers a push, or talks to a push
// data server, which blocks until that is over. A push that its application cannot be told of now
// is parked, until it has been answered a "createSession" or its channel has ended.
// Nothing that a client, a sender or a server sends leaves this as an exception. Any thread, but
// one at a time for one application.
void handleNode(std::unique_ptr<QuilMessageNode>* node);

// The same for the answer to a request, whoever works for its application meanwhile. It leaves
// parked pushes alone; deliverParkedPushes is the caller's to call, in the application's turn.
void handleOutOfTurn(std::unique_ptr<QuilMessageNode>* node);

// Tries an application's parked pushes anew, in their order. As handleNode.
void deliverParkedPushes(const std::string& appId);
