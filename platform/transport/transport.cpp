#include "platform/transport/transport.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

namespace {

constexpr std::size_t kFixedBytes = 9;
constexpr std::size_t kSpareBytes = 1;

struct Endpoint {
    std::string host;
    std::uint16_t port = 0;
};

// The string of `length` bytes at `at`, its NUL included; nothing when the NUL is missing or not
// the last.
std::optional<std::string> readString(const unsigned char* at, std::size_t length) {
    if (length == 0) {
        return std::string();
    }
    if (std::memchr(at, '\0', length) != at + length - 1) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(at), length - 1);
}

// Gives 0 or the errno that says what is wrong with the block.
int decode(const unsigned char* block, std::size_t length, Endpoint* endpoint) {
    if (length < kFixedBytes + kSpareBytes || block[0] != length) {
        return EINVAL;
    }
    if (block[1] != TRANSPORT_FAMILY) {
        return EAFNOSUPPORT;
    }
    const std::size_t handlerBytes = block[6];
    const std::size_t hostBytes = block[7];
    const std::size_t idBytes = block[8];
    if (kFixedBytes + handlerBytes + hostBytes + idBytes + kSpareBytes != length) {
        return EINVAL;
    }
    const auto handler = readString(block + kFixedBytes, handlerBytes);
    const auto host = readString(block + kFixedBytes + handlerBytes, hostBytes);
    const auto id = readString(block + kFixedBytes + handlerBytes + hostBytes, idBytes);
    if (!handler || !host || !id) {
        return EINVAL;
    }
    std::memcpy(&endpoint->port, block + 4, sizeof endpoint->port);
    endpoint->host = *host;
    return 0;
}

// The socket is of family IPv4 until a host says otherwise: then an IPv6 socket takes over its
// number.
bool becomeIpv6(int socket) {
    const int other = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (other == -1) {
        return false;
    }
    const int on = 1;
    const bool done = setsockopt(other, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                      setsockopt(other, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0 &&
                      dup3(other, socket, O_CLOEXEC) != -1;
    const int error = errno;
    close(other);
    errno = error;
    return done;
}

int bindTo(int socket, const Endpoint& endpoint) {
    const std::string host = endpoint.host == "localhost" ? "127.0.0.1" : endpoint.host;
    sockaddr_in v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(endpoint.port);
        return bind(socket, reinterpret_cast<const sockaddr*>(&v4), sizeof v4);
    }
    sockaddr_in6 v6{};
    if (inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(endpoint.port);
        return becomeIpv6(socket) ? bind(socket, reinterpret_cast<const sockaddr*>(&v6), sizeof v6)
                                  : -1;
    }
    errno = EADDRNOTAVAIL;
    return -1;
}

}  // namespace

int transportSocket(int family, int type, int protocol) {
    if (family != TRANSPORT_FAMILY) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    if (type != SOCK_STREAM) {
        errno = EPROTOTYPE;
        return -1;
    }
    if (protocol != 0 && protocol != IPPROTO_TCP) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    const int on = 1;
    if (made != -1 && setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        const int error = errno;
        close(made);
        errno = error;
        return -1;
    }
    return made;
}

int transportBind(int socket, const void* address, std::size_t length) {
    Endpoint endpoint;
    const int error = decode(static_cast<const unsigned char*>(address), length, &endpoint);
    if (error != 0) {
        errno = error;
        return -1;
    }
    if (bindTo(socket, endpoint) != 0) {
        return -1;
    }
    const int flags = fcntl(socket, F_GETFL);
    return flags == -1 ? -1 : fcntl(socket, F_SETFL, flags | O_NONBLOCK);
}
