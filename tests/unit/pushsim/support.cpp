#include "tests/unit/pushsim/support.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

using namespace std::chrono_literals;

namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name << " is not set";
    return value == nullptr ? "" : value;
}

void sendAll(int socket, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EAGAIN) {
            waitFor(socket, POLLOUT, Clock::now() + kPatience);
        } else if (count < 0) {
            return;
        } else {
            sent += static_cast<std::size_t>(count);
        }
    }
}

}  // namespace

TempFolder::TempFolder() {
    std::string pattern = std::filesystem::temp_directory_path() / "pushsim.XXXXXX";
    m_path = mkdtemp(pattern.data());
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string fileBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string golden(const std::string& name) {
    return fileBytes(environment("QUIL_SOURCE") + "/tests/data/" + name);
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = Clock::now() + kPatience;
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

Program::Program(const std::vector<std::string>& arguments, const std::string& input) {
    writeFile(m_folder.path("in"), input);
    const std::string binary = environment("QUIL_BIN") + "/pushsim";
    std::vector<std::string> words = arguments;
    words.insert(words.begin(), binary);
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const auto open = [&](int number, const std::string& name, int flags) {
        posix_spawn_file_actions_addopen(&actions, number, m_folder.path(name).c_str(), flags,
                                         0600);
    };
    open(0, "in", O_RDONLY);
    open(1, "out", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
    open(2, "err", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
    EXPECT_EQ(posix_spawn(&m_pid, binary.c_str(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
}

Program::~Program() {
    if (isRunning()) {
        signal(SIGKILL);
        wait();
    }
}

void Program::signal(int number) const {
    kill(m_pid, number);
}

bool Program::isRunning() {
    int status = 0;
    if (!m_ended && waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_ended = true;
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return !m_ended;
}

int Program::wait() {
    return eventually([this] { return !isRunning(); }) ? m_status : -2;
}

Ran run(const std::vector<std::string>& arguments, const std::string& input) {
    Program program(arguments, input);
    const int status = program.wait();
    return {status, program.out(), program.err()};
}

Server::Server(std::vector<std::string> arguments) {
    const std::string portFile = m_folder.path("port");
    arguments.insert(arguments.begin(), {"serve", "--port-file", portFile});
    m_program = std::make_unique<Program>(arguments);
    EXPECT_TRUE(eventually([&] {
        return std::filesystem::exists(portFile) || !m_program->isRunning();
    })) << "the server does not come up";
    EXPECT_TRUE(m_program->isRunning()) << m_program->err();
    m_port = static_cast<std::uint16_t>(std::stoi("0" + fileBytes(portFile)));
}

Server::~Server() {
    EXPECT_EQ(stop(), 0) << m_program->err();
}

int Server::stop() {
    m_program->signal(SIGTERM);
    return m_program->wait();
}

std::string Server::exchange(const std::string& request) const {
    const Socket socket = connectHere(m_port);
    sendAll(socket.get(), request);
    return readUntil(socket.get(), [](const std::string&) { return false; });
}

std::string Server::get(const std::string& target) const {
    return exchange("GET " + target + " HTTP/1.1\r\nHost: test\r\n\r\n");
}

std::string Server::getTwoSteps(const std::string& target) const {
    return get(target + "&" + bodyOf(get(target)));
}

std::string bodyOf(const std::string& answer) {
    const std::size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? "<no body in: " + answer + ">" : answer.substr(end + 4);
}

std::string headerOf(const std::string& answer, const std::string& name) {
    const std::string head = answer.substr(0, answer.find("\r\n\r\n")) + "\r\n";
    const std::size_t at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos) {
        return "<none>";
    }
    const std::size_t value = at + name.size() + 4;
    return head.substr(value, head.find("\r\n", value) - value);
}

int statusOf(const std::string& answer) {
    return answer.rfind("HTTP/1.1 ", 0) == 0 ? std::stoi(answer.substr(9, 3)) : -1;
}

Socket listenAnywhere(std::uint16_t* port) {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(socket.get(), 16), 0);
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    *port = ntohs(address.sin_port);
    return socket;
}

Socket connectHere(std::uint16_t port) {
    std::string error;
    Socket socket = connectTo("127.0.0.1", port, Clock::now() + kPatience, &error);
    EXPECT_TRUE(socket.isOpen()) << error;
    return socket;
}

std::string readUntil(int socket, const std::function<bool(const std::string&)>& enough) {
    std::string bytes;
    std::array<char, 4096> buffer{};
    const auto deadline = Clock::now() + kPatience;
    while (!enough(bytes)) {
        if (waitFor(socket, POLLIN, deadline) == Ready::TimedOut) {
            return bytes + "<time-out>";
        }
        const ssize_t count = recv(socket, buffer.data(), buffer.size(), 0);
        if (count == 0) {
            return bytes;
        }
        if (count < 0 && errno == EAGAIN) {
            continue;
        }
        if (count < 0) {
            return bytes + "<reset>";
        }
        bytes.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return bytes;
}

Device::Device(Plan plan) : m_plan(std::move(plan)), m_listener(listenAnywhere(&m_port)) {
    m_thread = std::thread([this] { serve(); });
}

Device::~Device() {
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

std::vector<std::string> Device::pushes() {
    m_thread.join();
    return m_pushes;
}

void Device::serve() {
    for (int i = 0; i < m_plan.connections; ++i) {
        if (waitFor(m_listener.get(), POLLIN, Clock::now() + kPatience) == Ready::TimedOut) {
            return;
        }
        const Socket socket(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        m_pushes.push_back(readUntil(socket.get(), [this](const std::string& bytes) {
            return m_plan.pushBytes != 0 && bytes.size() >= m_plan.pushBytes;
        }));
        sendAll(socket.get(), m_plan.answer);
        if (m_plan.keepsOpen) {
            readUntil(socket.get(), [](const std::string&) { return false; });
        }
        if (m_plan.resets) {
            const linger now{1, 0};
            setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
        }
    }
}
