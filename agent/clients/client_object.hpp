// The served object "/pps/services/push/ipc", on which applications are connected: each open of it
// by an application is one client.

#pragma once

#include <sys/types.h>

#include <cstddef>

// Opens the object as its server. The descriptor, or -1. Never closed while the agent runs. When
// only making the object writable for applications failed, -1 is returned although the descriptor
// stays open and in use for replies.
int clientIfInit();

// The descriptor of the served object, -1 when opening it failed. Safe on any thread once
// clientIfInit returned.
int clientDescriptor();

// Opens the object anew after the object service has come back, quietly: nothing is logged. The new
// connection takes the descriptor's number over. False when there is no service yet, or it cannot
// be opened; then nothing has changed. Main thread.
bool reopenClientObject();

// Writes one object for the applications. Gives what write(2) gives; -1 with ESTALE when the object
// service has ended since `life` (support/service_life.hpp). Any thread.
ssize_t writeToClients(const char* text, std::size_t length, int life);
