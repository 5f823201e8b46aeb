// The reading side is shut down first, so that a sender that still writes learns of the end at
// once.

#include "agent/connections/connection.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>

#include "agent/support/log.hpp"

int serverIfClose(int socket) {
    const int shut = shutdown(socket, SHUT_RD);
    QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfClose: shutdown returned %d\n", shut);
    const int result = close(socket);
    QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfClose: close returned %d\n", result);
    return result;
}

int serverIfSend(int socket, const char* bytes, int length) {
    return static_cast<int>(send(socket, bytes, static_cast<std::size_t>(length), 0));
}
