#include "tests/support/agent/server_fixture.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <utility>

#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"
#include "tests/support/loopback.hpp"

ServerRoot::ServerRoot(const std::string& configuration) {
    write("/etc/quilagent.conf", configuration);
    write("/pps/system/nvram/deviceinfo", "@deviceinfo\nPIN::0x2A00\nHardwareID::0x87\n");
    write("/pps/services/deviceproperties", "@deviceproperties\nscmbundle::10.3\n");
    raiseVerbosity(2);
}

DescriptorShortage::DescriptorShortage(int spare) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    m_before = limit.rlim_cur;
    limit.rlim_cur = static_cast<rlim_t>(lowestFreeDescriptor() + spare);
    setrlimit(RLIMIT_NOFILE, &limit);
}

DescriptorShortage::~DescriptorShortage() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = m_before;
    setrlimit(RLIMIT_NOFILE, &limit);
}

ReservedPort::ReservedPort() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!bindLoopback(m_socket)) {
        throw std::runtime_error("no free port");
    }
    m_number = boundPort(m_socket);
}

ReservedPort::~ReservedPort() {
    close(m_socket);
}

void ReservedPort::listenOnIt() const {
    if (listen(m_socket, 5) != 0) {
        throw std::runtime_error("port taken");
    }
}

int ReservedPort::accept() const {
    return accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
}

void ReservedPort::wakeAcceptors() const {
    shutdown(m_socket, SHUT_RDWR);
}

Peer::Peer(int port) : m_socket(connectLoopback(port)) {}

Peer::~Peer() {
    close();
}

void Peer::send(const std::string& bytes) const {
    ASSERT_TRUE(sendBytes(m_socket, bytes)) << "the connection has gone";
    ASSERT_TRUE(waitUntil([this] {
        int unsent = 0;
        ioctl(m_socket, SIOCOUTQ, &unsent);
        return unsent == 0;
    })) << "bytes were not taken";
}

bool Peer::trySend(const std::string& bytes) const {
    return sendBytes(m_socket, bytes);
}

void Peer::closeWriting() const {
    shutdown(m_socket, SHUT_WR);
}

void Peer::close() {
    if (m_socket != -1) {
        ::close(std::exchange(m_socket, -1));
    }
}

void Peer::reset() {
    const linger now = {1, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close();
}

bool Peer::seesClose(double seconds) const {
    return waitUntil([this] { return !isOpen(); }, seconds);
}

bool Peer::isOpen() const {
    char byte = 0;
    return recv(m_socket, &byte, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN;
}

std::string Peer::readAll() const {
    std::string all;
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t count = recv(m_socket, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            return all;
        }
        all.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

RawServer::RawServer(std::function<void(int)> serve) : m_serve(std::move(serve)) {
    m_port.listenOnIt();
    m_thread = std::thread([this] { run(); });
}

RawServer::~RawServer() {
    {
        const std::lock_guard lock(m_lock);
        m_stops = true;
        if (m_connection != -1) {
            shutdown(m_connection, SHUT_RDWR);
        }
    }
    m_port.wakeAcceptors();
    m_thread.join();
}

std::string RawServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port()) + path;
}

void RawServer::run() {
    for (;;) {
        const int connection = m_port.accept();
        {
            const std::lock_guard lock(m_lock);
            if (connection == -1 || m_stops) {
                close(connection);
                return;
            }
            m_connection = connection;
        }
        m_serve(connection);
        const std::lock_guard lock(m_lock);
        m_connection = -1;
        close(connection);
    }
}

std::string readRequest(int connection) {
    std::string request;
    while (!request.ends_with("\r\n\r\n")) {
        char byte = 0;
        if (recv(connection, &byte, 1, 0) <= 0) {
            break;
        }
        request += byte;
    }
    return request;
}

bool sendBytes(int connection, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count =
            send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

void waitForClose(int connection) {
    char byte = 0;
    while (recv(connection, &byte, 1, 0) > 0) {
    }
}

QuilSession* addSession(const std::string& appId, const std::string& clientId) {
    auto session = std::make_unique<QuilSession>(appId, clientId);
    QuilSessionManager::getInstance()->addSession(session);
    return QuilSessionManager::getInstance()->getSessionByAppId(appId);
}
