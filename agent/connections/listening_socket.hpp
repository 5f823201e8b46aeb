// The sockets on which push senders connect.

#pragma once

// Opens a listening socket of the proxied transport on a port. The descriptor, which the caller
// owns, or -1. Any thread. When listening itself fails, the bound socket is left open.
int serverIfInit(int port);
