// The load of scripts/bench: an application and its senders in one process, in a closed loop. The
// same program measures the agent and the floor, so that only what stands between sender and
// application differs.
//
//     bench_load OBJECT MODE COUNT BYTES SOURCE APPLICATION=PORT...
//
//     close     one push after the other; the sender closes behind its last byte
//     wait      the same, and the sender waits for the answer, which the application asks for at
//     once request   no push: a request of the application and its reply senders   one sender for
//     each APPLICATION at once, each of which waits for its answer; COUNT pushes in all
//
// SOURCE is where pushes come from, an address of 127.0.0.0/8: ports that a sender closed first
// stay taken for a minute, for that address alone. Prints one JSON object. Exit status: 0 measured,
// 1 something was lost or refused, 2 wrong arguments.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/bench/stack/sockets.hpp"
#include "tests/bench/stack/timing.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using bench::fail;
using bench::restOfLine;

constexpr std::size_t kAnswerBytes = 72;
constexpr std::size_t kReadBytes = 1 << 18;
constexpr std::string_view kNotification = "\nmsg::pushNotification\n";

struct Application {
    std::string name;
    std::uint16_t port = 0;
};

struct Arguments {
    const char* object = nullptr;
    std::string mode;
    std::size_t count = 0;
    std::size_t bytes = 0;
    std::string source;
    std::vector<Application> applications;
};

std::string requestText(const char* name, std::string_view id, const Application& application) {
    return "msg::" + std::string(name) + "\nid::" + std::string(id) +
           "\ndat:json:{\"providerApplicationId\":\"" + application.name + "\"}\n";
}

// The id says which application it is for.
std::string pushText(std::size_t bytes, std::size_t application) {
    return "POST /x HTTP/1.1\r\nContent-Length: " + std::to_string(bytes) +
           "\r\nPush-Message-ID: " + std::to_string(application) + "\r\n\r\n" +
           std::string(bytes, 'x');
}

class Load {
  public:
    explicit Load(Arguments arguments);

    int run();

  private:
    std::string_view read() { return bench::waitAndRead(m_file, m_buffer); }
    void beginSession(const Application& application);
    void measureRequests();
    void measurePushes(bool isWaiting);
    void measureSenders();
    void sendAndWait(std::size_t application, std::size_t count) const;
    // Accepts every push that the text holds, as far as its sender waits; gives their number.
    std::size_t accept(std::string_view text);

    Arguments m_arguments;
    int m_file;
    std::vector<char> m_buffer = std::vector<char>(kReadBytes);
};

Load::Load(Arguments arguments)
    : m_arguments(std::move(arguments)), m_file(open(m_arguments.object, O_RDWR | O_CLOEXEC)) {
    if (m_file < 0) {
        fail(m_arguments.object);
    }
    for (const Application& application : m_arguments.applications) {
        beginSession(application);
    }
}

void Load::beginSession(const Application& application) {
    bench::writeMessage(m_file, requestText("createSession", "1", application));
    while (read().find("onCreateSessionComplete") == std::string_view::npos) {
    }
}

int Load::run() {
    if (m_arguments.mode == "request") {
        measureRequests();
    } else if (m_arguments.mode == "close" || m_arguments.mode == "wait") {
        measurePushes(m_arguments.mode == "wait");
    } else if (m_arguments.mode == "senders") {
        measureSenders();
    } else {
        std::fprintf(stderr, "no such mode: %s\n", m_arguments.mode.c_str());
        return 2;
    }
    return 0;
}

void Load::measureRequests() {
    const std::string request = requestText("createSession", "1", m_arguments.applications[0]);
    bench::Waits waits(m_arguments.count);
    for (std::size_t i = 0; i < m_arguments.count; ++i) {
        const auto begin = Clock::now();
        bench::writeMessage(m_file, request);
        read();
        waits.addSince(begin);
    }
    std::printf("{\"reply\": %s}\n", waits.asJson().c_str());
}

void Load::measurePushes(bool isWaiting) {
    const std::string push = pushText(m_arguments.bytes, 0);
    const std::uint16_t port = m_arguments.applications[0].port;
    bench::Waits toApplication(m_arguments.count);
    bench::Waits toAnswer(m_arguments.count);
    std::array<char, kAnswerBytes + 1> answer{};
    for (std::size_t i = 0; i < m_arguments.count; ++i) {
        const auto begin = Clock::now();
        const int socket = bench::connectFrom(m_arguments.source, port);
        bench::sendAll(socket, push);
        if (!isWaiting) {
            close(socket);
        }
        const std::string_view text = read();
        toApplication.addSince(begin);
        if (accept(text) != 1) {
            fail("not one push");
        }
        if (isWaiting) {
            bench::receiveAll(socket, {answer.data(), kAnswerBytes});
            toAnswer.addSince(begin);
            if (recv(socket, answer.data(), answer.size(), 0) != 0) {
                fail("more than the answer");
            }
            close(socket);
        }
    }
    std::printf("{\"application\": %s", toApplication.asJson().c_str());
    if (isWaiting) {
        std::printf(", \"answer\": %s", toAnswer.asJson().c_str());
    }
    std::printf("}\n");
}

std::size_t Load::accept(std::string_view text) {
    std::size_t count = 0;
    std::size_t at = text.find(kNotification);
    while (at != std::string_view::npos) {
        const std::size_t next = text.find(kNotification, at + 1);
        const std::string_view message = text.substr(at, next - at);
        if (message.find("\"appLevelAck\":1") != std::string_view::npos) {
            const std::string id(restOfLine(message, "\nid::"));
            const auto application = static_cast<std::size_t>(std::stoul(id));
            bench::writeMessage(
                m_file, requestText("acceptPush", id, m_arguments.applications.at(application)));
        }
        ++count;
        at = next;
    }
    return count;
}

void Load::sendAndWait(std::size_t application, std::size_t count) const {
    const std::string push = pushText(m_arguments.bytes, application);
    std::array<char, kAnswerBytes> answer{};
    for (std::size_t i = 0; i < count; ++i) {
        const int socket =
            bench::connectFrom(m_arguments.source, m_arguments.applications[application].port);
        bench::sendAll(socket, push);
        bench::receiveAll(socket, answer);
        close(socket);
    }
}

void Load::measureSenders() {
    const std::size_t senders = m_arguments.applications.size();
    const std::size_t each = m_arguments.count / senders;
    const auto begin = Clock::now();
    std::vector<std::thread> threads;
    for (std::size_t sender = 0; sender < senders; ++sender) {
        threads.emplace_back(&Load::sendAndWait, this, sender, each);
    }
    for (std::size_t taken = 0; taken < each * senders;) {
        taken += accept(read());
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::printf("{\"a_second\": %.1f}\n",
                static_cast<double>(each * senders) / bench::secondsSince(begin));
}

}  // namespace

int main(int count, char** words) {
    Arguments arguments;
    if (count < 7) {
        std::fprintf(stderr,
                     "Usage: bench_load OBJECT MODE COUNT BYTES SOURCE APPLICATION=PORT...\n");
        return 2;
    }
    arguments.object = words[1];
    arguments.mode = words[2];
    arguments.count = std::max<std::size_t>(1, bench::numberOf(words[3]));
    arguments.bytes = bench::numberOf(words[4]);
    arguments.source = words[5];
    for (int i = 6; i < count; ++i) {
        const std::string word = words[i];
        const std::size_t equals = word.find('=');
        if (equals == std::string::npos) {
            std::fprintf(stderr, "not APPLICATION=PORT: %s\n", word.c_str());
            return 2;
        }
        arguments.applications.push_back(
            {word.substr(0, equals),
             static_cast<std::uint16_t>(bench::numberOf(word.c_str() + equals + 1))});
    }
    return Load(std::move(arguments)).run();
}
