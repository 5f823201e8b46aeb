// The least that can stand between senders and an application: accepts a connection, receives a
// push, looks once more whether its sender has closed, and writes one message. What waits is closed
// with 72 bytes once the application accepts it; every other message of the application is answered
// at once. It decodes, checks and keeps nothing beyond that.
//
//     bench_floor_relay FOLDER
//
// FOLDER is where bench_floor_service serves. Prints its port, and relays until it is killed.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include "tests/bench/stack/sockets.hpp"
#include "tests/bench/stack/timing.hpp"

namespace {

using bench::fail;
using bench::restOfLine;

constexpr int kBacklog = 128;
constexpr std::size_t kAnswerBytes = 72;
constexpr std::size_t kBufferBytes = 1 << 16;

class Relay {
  public:
    explicit Relay(const std::string& folder);

    [[noreturn]] void run();

  private:
    void takeMessage();
    void takePush();
    std::size_t receivePush(int socket);

    int m_object;
    int m_listener;
    std::string m_client;               // the application's name, as the service gives it
    std::map<std::string, int> m_kept;  // id of a push: the connection on which its sender waits
    std::array<char, kBufferBytes> m_buffer{};
};

Relay::Relay(const std::string& folder)
    : m_object(open((folder + "/ipc?server").c_str(), O_RDWR | O_CLOEXEC)),
      m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (m_object < 0 || bind(m_listener, generic, size) != 0 || listen(m_listener, kBacklog) != 0 ||
        getsockname(m_listener, generic, &size) != 0) {
        fail("the relay cannot start");
    }
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
}

void Relay::run() {
    while (true) {
        std::array<pollfd, 2> watched = {{{m_object, POLLIN, 0}, {m_listener, POLLIN, 0}}};
        if (poll(watched.data(), watched.size(), -1) < 0) {
            fail("poll");
        }
        if (watched[0].revents != 0) {
            takeMessage();
        }
        if (watched[1].revents != 0) {
            takePush();
        }
    }
}

void Relay::takeMessage() {
    const ssize_t count = read(m_object, m_buffer.data(), m_buffer.size());
    if (count < 0) {
        fail("the service is gone");
    }
    const std::string_view message(m_buffer.data(), static_cast<std::size_t>(count));
    if (message.starts_with("+")) {
        m_client = message.substr(1, message.find('\n') - 1);
    } else if (message.find("\nmsg::acceptPush\n") != std::string_view::npos) {
        const auto kept = m_kept.find(std::string(restOfLine(message, "\nid::")));
        if (kept != m_kept.end()) {
            std::array<char, kAnswerBytes> answer{};
            answer.fill('a');
            bench::sendAll(kept->second, {answer.data(), answer.size()});
            close(kept->second);
            m_kept.erase(kept);
        }
    } else if (message.starts_with("@")) {
        bench::writeMessage(m_object, m_client + "\nmsg::onCreateSessionComplete\nid::1\n");
    }
}

std::size_t Relay::receivePush(int socket) {
    std::size_t received = 0;
    std::size_t wanted = 1;
    while (received < wanted) {
        const ssize_t count =
            recv(socket, m_buffer.data() + received, m_buffer.size() - received, 0);
        if (count <= 0) {
            fail("a push broke off");
        }
        received += static_cast<std::size_t>(count);
        const std::string_view push(m_buffer.data(), received);
        const std::string length(restOfLine(push, "Content-Length: "));
        wanted = push.find("\r\n\r\n") + 4 + std::strtoul(length.c_str(), nullptr, 10);
    }
    return received;
}

void Relay::takePush() {
    const int socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) {
        fail("accept");
    }
    const std::string_view push(m_buffer.data(), receivePush(socket));
    const std::string id(restOfLine(push, "Push-Message-ID:"));
    char more = 0;
    const bool isWaiting = recv(socket, &more, 1, MSG_DONTWAIT) < 0;
    std::string message = m_client + "\nmsg::pushNotification\nid::" + id + "\ndat:json:{\"" +
                          (isWaiting ? "appLevelAck\":1" : "appLevelAck\":0") + ",\"data\":\"";
    message += push;
    message += "\"}\n";
    // Before the application can know of it.
    if (isWaiting) {
        m_kept[id] = socket;
    }
    bench::writeMessage(m_object, message);
    if (!isWaiting) {
        close(socket);
    }
}

}  // namespace

int main(int count, char** words) {
    if (count != 2) {
        std::fprintf(stderr, "Usage: bench_floor_relay FOLDER\n");
        return 2;
    }
    Relay(words[1]).run();
}
