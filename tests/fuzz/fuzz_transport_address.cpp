// Address blocks of any bytes: refused or bound, never read beyond their length.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "platform/transport/transport.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int socket = transportSocket(TRANSPORT_FAMILY, SOCK_STREAM, 6);
    transportBind(socket, data, size);
    close(socket);
    return 0;
}
