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

// TCP can be bound to a broadcast address, although no connection can ever come to it. Which
// addresses are such the kernel tells to a datagram socket that is connected to one without having
// asked for broadcasts; nothing is sent. Without a descriptor to spare it cannot be asked: then
// only the general broadcast address counts.
bool isBroadcast(in_addr host) {
    if (host.s_addr == htonl(INADDR_BROADCAST)) {
        return true;
    }
    const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe == -1) {
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(9);  // any but 0
    const bool isRefused =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
        errno == EACCES;
    close(probe);
    return isRefused;
}

int bindToIpv4(int socket, in_addr host, std::uint16_t port) {
    if (IN_MULTICAST(ntohl(host.s_addr)) || isBroadcast(host)) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(port);
    return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

int bindToIpv6(int socket, const in6_addr& host, std::uint16_t port) {
    if (IN6_IS_ADDR_V4MAPPED(&host)) {
        in_addr inside{};
        std::memcpy(&inside, &host.s6_addr[12], sizeof inside);
        return bindToIpv4(socket, inside, port);
    }
    // A link-local address says nothing without its interface, for which the block has no place.
    if (IN6_IS_ADDR_MULTICAST(&host) || IN6_IS_ADDR_LINKLOCAL(&host)) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = host;
    address.sin6_port = htons(port);
    return becomeIpv6(socket)
               ? bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address)
               : -1;
}

int bindTo(int socket, const Endpoint& endpoint) {
    const std::string host = endpoint.host == "localhost" ? "127.0.0.1" : endpoint.host;
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return bindToIpv4(socket, v4, endpoint.port);
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
        return bindToIpv6(socket, v6, endpoint.port);
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
