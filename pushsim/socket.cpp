#include "pushsim/socket.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

namespace {

struct FreeAddresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

using AddressList = std::unique_ptr<addrinfo, FreeAddresses>;

// Null, and the reason in *error, where there is none.
AddressList resolve(const std::string& host, std::uint16_t port, std::string* error) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int failure = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (failure != 0) {
        *error = gai_strerror(failure);
        return nullptr;
    }
    return AddressList(found);
}

// 0, or the errno of the failure.
int listenOne(const addrinfo& address, Socket* made) {
    Socket socket(::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // The port of a server that has just ended is free.
    const int on = 1;
    if (!socket.isOpen() ||
        setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(socket.get(), address.ai_addr, address.ai_addrlen) != 0 ||
        listen(socket.get(), SOMAXCONN) != 0) {
        return errno;
    }
    *made = std::move(socket);
    return 0;
}

std::uint16_t portOf(int socket) {
    sockaddr_storage bound{};
    socklen_t size = sizeof bound;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &size) != 0) {
        return 0;
    }
    // Both families have the port in the same place.
    return ntohs(reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
}

// 0, or the errno of the failure.
int connectOne(const addrinfo& address, Clock::time_point deadline, Socket* made) {
    Socket socket(::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen()) {
        return errno;
    }
    if (connect(socket.get(), address.ai_addr, address.ai_addrlen) != 0) {
        if (errno != EINPROGRESS) {
            return errno;
        }
        if (waitFor(socket.get(), POLLOUT, deadline) == Ready::TimedOut) {
            return ETIMEDOUT;
        }
        int error = 0;
        socklen_t size = sizeof error;
        if (getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
            return errno;
        }
        if (error != 0) {
            return error;
        }
    }
    // Each write of a push that is sent in pieces goes out as a piece of its own.
    const int on = 1;
    if (setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
        return errno;
    }
    *made = std::move(socket);
    return 0;
}

}  // namespace

Socket::~Socket() {
    close();
}

Socket::Socket(Socket&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        close();
        m_descriptor = std::exchange(other.m_descriptor, -1);
    }
    return *this;
}

void Socket::close() {
    if (m_descriptor != -1) {
        ::close(std::exchange(m_descriptor, -1));
    }
}

int millisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
}

Socket connectTo(const std::string& host, std::uint16_t port, Clock::time_point deadline,
                 std::string* error) {
    const AddressList list = resolve(host, port, error);
    Socket socket;
    for (const addrinfo* address = list.get(); address != nullptr; address = address->ai_next) {
        const int code = connectOne(*address, deadline, &socket);
        if (code == 0) {
            return socket;
        }
        *error = std::strerror(code);
    }
    return socket;
}

Socket listenOn(const std::string& host, std::uint16_t* port, std::string* error) {
    const AddressList list = resolve(host, *port, error);
    Socket socket;
    for (const addrinfo* address = list.get(); address != nullptr; address = address->ai_next) {
        const int code = listenOne(*address, &socket);
        if (code == 0) {
            *port = portOf(socket.get());
            return socket;
        }
        *error = std::strerror(code);
    }
    return socket;
}

Ready waitFor(int socket, short events, Clock::time_point deadline) {
    for (;;) {
        pollfd wait{socket, events, 0};
        const int count = poll(&wait, 1, millisecondsUntil(deadline));
        if (count > 0) {
            return Ready::Yes;
        }
        // An interrupted wait goes on; any other failure shows again in the read or write.
        if (count == 0 || errno != EINTR) {
            return count == 0 ? Ready::TimedOut : Ready::Yes;
        }
    }
}
