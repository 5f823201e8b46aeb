// Where applications talk to the agent: the served object "/pps/services/push/ipc". This unit opens
// it, reads requests from it and hands them to the operations; replies go back through
// client_reply.hpp. docs/formats/requests.md and docs/formats/replies.md show both
// as applications see them.

#pragma once

#include <string>

// Opens the object as its server. The descriptor, or -1. Never closed while the agent runs. When
// only making the object writable for applications failed, -1 is returned although the descriptor
// stays open and in use for replies.
int clientIfInit();

// The descriptor of the served object, -1 when opening it failed. Safe on any thread once
// clientIfInit returned.
int clientDescriptor();

// Reads one request and carries it out. Main thread only. Gives the number of bytes read, -1 when
// the read failed.
int clientPPSMessageGet();

// Decodes the text of one request and calls the operation that it names. Main thread only.
void clientProcessRequest(const char* text);
