// Plain sockets, so that a test decides about every byte and every close.

#include "tests/support/push_sender.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>

#include "tests/support/loopback.hpp"

PushSender::PushSender(int port) : m_socket(connectLoopback(port)) {
    if (m_socket == -1) {
        return;
    }
    const int on = 1;  // each send is a segment of its own
    setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

PushSender::~PushSender() {
    close();
}

bool PushSender::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void PushSender::finishSending() const {
    shutdown(m_socket, SHUT_WR);
}

void PushSender::close() {
    if (m_socket >= 0) {
        ::close(m_socket);
        m_socket = -1;
    }
}

void PushSender::reset() {
    const linger atOnce = {1, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close();
}

std::string PushSender::readToEnd(double seconds) const {
    std::string all;
    for (;;) {
        pollfd watched = {m_socket, POLLIN, 0};
        if (poll(&watched, 1, static_cast<int>(seconds * 1000)) <= 0) {
            return all + "(still open)";
        }
        char buffer[4096];
        const ssize_t count = recv(m_socket, buffer, sizeof buffer, 0);
        if (count < 0) {
            return all + "(reset)";
        }
        if (count == 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(count));
    }
}

std::string makePush(const std::string& id, const std::string& data) {
    return "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(data.size()) +
           "\r\nPush-Message-ID:" + id + "\r\n\r\n" + data;
}

bool isAcknowledgement(const std::string& bytes) {
    static const std::regex form(
        "HTTP/1\\.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:"
        "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}\n\n\r");
    return bytes.size() == 72 && std::regex_match(bytes, form);
}
