// The sockets on which pushes arrive: listening on a port, reading one push from a connection,
// answering on it.

#pragma once

#include "agent/port.hpp"

// Opens a listening socket of the proxied transport on a port. The descriptor, which the caller
// owns, or -1. Any thread. When listening itself fails, the bound socket is left open.
int serverIfInit(int port);

// Accepts one connection on the port's listening socket, reads its push and queues it for the
// message handler thread. Main thread only, and blocks it until the push is in, for "push-timeout"
// seconds at the most. While the application has no client nothing is accepted: the connection
// waits.
void serverIfProcessData(QuilPort* port);

// Ends a connection. Gives the result of close(2).
int serverIfClose(int socket);

// Sends without flags. Gives the result of send(2).
int serverIfSend(int socket, const char* bytes, int length);
