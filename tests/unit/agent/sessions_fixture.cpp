#include "tests/unit/agent/sessions_fixture.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include "agent/log.hpp"
#include "agent/states/session_states.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

constexpr int kWaitMilliseconds = 10000;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

std::unique_ptr<QuilBaseState> makeState(int type) {
    switch (type) {
        case STATE_IDLE:
            return std::make_unique<QuilIdleState>();
        case STATE_CREATE:
            return std::make_unique<QuilCreateState>();
        case STATE_DELETE:
            return std::make_unique<QuilDeleteState>();
        case STATE_REGISTER:
            return std::make_unique<QuilRegisterState>();
        case STATE_UNREGISTER:
            return std::make_unique<QuilUnregisterState>();
        case STATE_TERMINATE:
            return std::make_unique<QuilTerminateState>();
        case STATE_SIM_CHANGE:
            return std::make_unique<QuilSimChangeState>();
        default:
            return nullptr;
    }
}

}  // namespace

PlatformFolder::PlatformFolder() {
    const std::string base =
        std::filesystem::temp_directory_path().string() + "/quil_sessions_XXXXXX";
    std::vector<char> path(base.begin(), base.end());
    path.push_back('\0');
    m_path = mkdtemp(path.data());
    setenv("QUIL_ROOT", m_path.c_str(), 1);
}

PlatformFolder::~PlatformFolder() {
    for (const int fifo : m_fifos) {
        close(fifo);
    }
    std::filesystem::remove_all(m_path);
}

void PlatformFolder::makeFolders(const std::string& path) const {
    std::filesystem::create_directories(real(path));
}

void PlatformFolder::write(const std::string& path, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(real(path)).parent_path());
    std::ofstream(real(path), std::ios::binary) << text;
}

std::string PlatformFolder::read(const std::string& path) const {
    std::ifstream file(real(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

int PlatformFolder::makeFifo(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(real(path)).parent_path());
    mkfifo(real(path).c_str(), 0600);
    const int fifo = open(real(path).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    m_fifos.push_back(fifo);
    return fifo;
}

void PlatformFolder::setImsi(const std::string& imsi) const {
    write("/pps/services/cellular/uicc/card0/status_private",
          "@status_private\nimsi::" + imsi + "\n");
}

SessionsTest::SessionsTest() {
    std::signal(SIGPIPE, SIG_IGN);
    raiseVerbosity(2);
}

Connected::Connected() {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
        here = ends[0];
        there = ends[1];
    }
}

Connected::~Connected() {
    for (const int end : {here, there}) {
        if (end != -1) {
            close(end);
        }
    }
}

std::string Connected::readUntilClosed() const {
    std::string all;
    for (;;) {
        pollfd watched = {there, POLLIN, 0};
        if (poll(&watched, 1, kWaitMilliseconds) != 1) {
            return all + " (and was not closed)";
        }
        char buffer[4096];
        const ssize_t count = ::read(there, buffer, sizeof buffer);
        if (count <= 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(count));
    }
}

bool Connected::isClosedWithoutAByte() const {
    char byte = 0;
    return recv(there, &byte, 1, MSG_DONTWAIT) == 0;
}

int freePort() {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    bind(probe, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
    close(probe);
    return ntohs(address.sin_port);
}

bool isListening(int port) {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    const bool answered =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return answered;
}

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

int countDescriptors() {
    int count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        count += isOpen(descriptor) ? 1 : 0;
    }
    return count;
}

std::string readAvailable(int descriptor) {
    std::string all;
    char buffer[65536];
    for (;;) {
        const ssize_t count = read(descriptor, buffer, sizeof buffer);
        if (count <= 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(count));
    }
}

std::string readBytes(int descriptor, std::size_t size) {
    std::string all;
    waitUntil([&] {
        all += readAvailable(descriptor);
        return all.size() >= size;
    });
    return all;
}

int stateOf(QuilSession& session) {
    std::unique_ptr<QuilBaseState> state = session.setState(nullptr);
    const int type = state == nullptr ? -1 : state->getStateType();
    session.setState(std::move(state));
    return type;
}

void putIntoState(QuilSession& session, int type) {
    session.setState(makeState(type));
}

std::string longText(char first) {
    return first + std::string(kLongTextBytes - 2, 'x');
}

bool isTimeLeft(int round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return round < kWaitMilliseconds;
}
