// Where pushes come in: accepts connections on the sessions' ports, and sees to those whose push is
// still on its way. docs/formats/push.md shows the bytes.
//
// Main thread only. Nothing here waits: a connection whose push is not in yet is set aside.

#pragma once

#include <chrono>

#include "agent/sessions/port.hpp"

// The descriptor to wait on beside the ports' own: readable when servePushIntake has something to
// do. It stays this unit's; -1 when the system gave none, and then a push has to be in when its
// connection is accepted.
int openPushIntake();

// Accepts one connection on the port's listening socket, reads what its sender has sent, and queues
// the push for the message handler thread if that is all of it. While the application has no client
// nothing is accepted: the connection waits.
void serverIfProcessData(QuilPort* port);

// Goes on with set-aside connections whose next bytes came, and closes those whose time
// ("push-timeout") is up.
void servePushIntake();

// Gives set-aside connections so much more time, in which the loop could not see to them.
void postponePushIntake(std::chrono::steady_clock::duration time);

// How many connections are set aside.
int countSetAsideConnections();

// True while nothing can be accepted for want of descriptors or memory. For the loop, before each
// wait; the descriptor of openPushIntake becomes readable ten times a second then, so that it asks
// again.
bool isPushIntakePaused();
