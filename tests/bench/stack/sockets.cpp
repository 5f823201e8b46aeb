#include "tests/bench/stack/sockets.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/bench/stack/timing.hpp"

namespace bench {

namespace {

constexpr int kPatienceMilliseconds = 10000;

}  // namespace

int connectFrom(const std::string& source, std::uint16_t port) {
    sockaddr_in own{};
    own.sin_family = AF_INET;
    if (inet_pton(AF_INET, source.c_str(), &own.sin_addr) != 1) {
        fail(source.c_str());
    }
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // The port is chosen by connect(), which looks at both ends: one that is free for this peer
    // alone will do.
    const int one = 1;
    if (setsockopt(socket, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof one) != 0 ||
        bind(socket, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        fail("bind");
    }
    if (connect(socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        fail("connect");
    }
    return socket;
}

void sendAll(int socket, std::string_view bytes) {
    if (send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(bytes.size())) {
        fail("send");
    }
}

void receiveAll(int socket, std::span<char> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = recv(socket, bytes.data(), bytes.size(), 0);
        if (count <= 0) {
            fail("the peer closed too early");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

std::string_view waitAndRead(int file, std::span<char> buffer) {
    while (true) {
        pollfd watched = {file, POLLIN, 0};
        if (poll(&watched, 1, kPatienceMilliseconds) != 1) {
            fail("nothing came");
        }
        const ssize_t count = read(file, buffer.data(), buffer.size());
        if (count > 0) {
            return {buffer.data(), static_cast<std::size_t>(count)};
        }
        if (count < 0 || (watched.revents & POLLHUP) != 0) {
            fail("read");
        }
    }
}

void writeMessage(int file, std::string_view text) {
    if (write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fail("write");
    }
}

std::string_view restOfLine(std::string_view text, std::string_view before) {
    const std::size_t at = text.find(before);
    if (at == std::string_view::npos) {
        return {};
    }
    const std::string_view rest = text.substr(at + before.size());
    return rest.substr(0, rest.find_first_of("\r\n"));
}

}  // namespace bench
