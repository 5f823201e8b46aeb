#include "tests/support/agent/sessions_fixture.hpp"

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

#include "agent/sessions/states/session_states.hpp"
#include "agent/support/log.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

constexpr int kWaitMilliseconds = 10000;

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

PlatformFolder::~PlatformFolder() {
    for (const int fifo : m_fifos) {
        close(fifo);
    }
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
