// Where pushes come in: accepts a connection on a session's port and reads the push that it brings.
// docs/formats/push.md shows the bytes.

#pragma once

#include "agent/sessions/port.hpp"

// Accepts one connection on the port's listening socket, reads its push and queues it for the
// message handler thread. Main thread only, and blocks it until the push is in, for "push-timeout"
// seconds at the most. While the application has no client nothing is accepted: the connection
// waits.
void serverIfProcessData(QuilPort* port);
