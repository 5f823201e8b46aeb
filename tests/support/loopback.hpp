// TCP on 127.0.0.1.

#pragma once

#include <netinet/in.h>

sockaddr_in loopback(int port);

// The port that a socket is bound to.
int boundPort(int socket);

// Binds a socket to a port, 0 for one of the kernel's choice.
bool bindLoopback(int socket, int port = 0);

// A connected stream socket, -1 when nobody listens there.
int connectLoopback(int port);

// A port on which nobody listens at the moment.
int freePort();

// True while some socket listens on that TCP port of this machine.
bool isListening(int port);
