// A connection is a WireStream. It reads the request line itself, keeps the target as it came and
// shows the library a target that it cannot stumble over. What the library writes passes through
// it too, and there an answer that is to misbehave is turned into something else.

#include "pushsim/http_server.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds kPeerTimeout = 30s;
constexpr std::size_t kLongestRequestLineBytes = 65536;
// A connection that hangs or is delayed holds a thread.
constexpr std::size_t kThreads = 32;
constexpr std::string_view kGarbage("\x16\x03\x01\x00 this is no HTTP \xff\xfe\r\n\r\n", 27);

// What the connection of this thread is answered: the library calls the handler on the thread that
// processes the connection, and has no other way to tell it which one that is.
thread_local const Reply* t_reply = nullptr;

// Waits for an event on the socket; false when the time is over or the server stops.
bool waitOrStop(int socket, short events, int stop, std::chrono::milliseconds longest) {
    const auto deadline = Clock::now() + longest;
    for (;;) {
        std::array<pollfd, 2> waits{pollfd{socket, events, 0}, pollfd{stop, POLLIN, 0}};
        const int count = poll(waits.data(), waits.size(), millisecondsUntil(deadline));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        return count > 0 && waits[1].revents == 0;
    }
}

class WireStream : public httplib::Stream {
  public:
    // Borrows both descriptors.
    WireStream(int socket, int stop) : m_socket(socket), m_stop(stop) {}

    // Reads up to the first line end and takes the target out of it: everything between the first
    // blank and the last one. False when no request line came.
    bool readRequestLine() {
        std::size_t end = std::string::npos;
        while ((end = m_input.find('\n')) == std::string::npos) {
            if (m_input.size() > kLongestRequestLineBytes || !receive()) {
                return false;
            }
        }
        const std::string line = m_input.substr(0, end);
        const std::size_t first = line.find(' ');
        const std::size_t last = line.rfind(" HTTP/");
        if (first == std::string::npos || last == std::string::npos || last <= first) {
            return true;  // the library refuses it
        }
        m_target = line.substr(first + 1, last - first - 1);
        m_input = line.substr(0, first) + " /" + line.substr(last) + m_input.substr(end);
        return true;
    }

    const std::string& target() const { return m_target; }

    // From now on what is written is treated so.
    void misbehave(Wire wire) { m_wire = wire; }

    // Ends early when the server stops.
    void pause(std::chrono::milliseconds time) const {
        if (time.count() > 0) {
            waitFor(m_stop, POLLIN, Clock::now() + time);
        }
    }

    bool is_readable() const override {
        return !m_input.empty() || waitOrStop(m_socket, POLLIN, m_stop, kPeerTimeout);
    }
    bool is_writable() const override {
        return waitOrStop(m_socket, POLLOUT, m_stop, kPeerTimeout);
    }

    ssize_t read(char* to, size_t size) override {
        if (m_input.empty() && !receive()) {
            return -1;
        }
        const std::size_t count = std::min(size, m_input.size());
        std::copy_n(m_input.begin(), count, to);
        m_input.erase(0, count);
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char* bytes, size_t size) override {
        switch (m_wire) {
            case Wire::Reply:
                return transmit(bytes, size);
            case Wire::Hang:
                waitForPeerToLeave();
                break;
            case Wire::Garbage:
                transmit(kGarbage.data(), kGarbage.size());
                break;
            case Wire::Close:
                break;
        }
        return -1;
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override { name(ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override { name(ip, port); }
    socket_t socket() const override { return m_socket; }

  private:
    // Nobody asks who is at the other end; the library wants an answer all the same.
    static void name(std::string& ip, int& port) {
        ip.clear();
        port = 0;
    }

    bool receive() {
        std::array<char, 4096> buffer{};
        if (!waitOrStop(m_socket, POLLIN, m_stop, kPeerTimeout)) {
            return false;
        }
        const ssize_t count = recv(m_socket, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            return false;
        }
        m_input.append(buffer.data(), static_cast<std::size_t>(count));
        return true;
    }

    ssize_t transmit(const char* bytes, size_t size) {
        std::size_t sent = 0;
        while (sent < size) {
            if (!is_writable()) {
                return -1;
            }
            const ssize_t count =
                send(m_socket, bytes + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count > 0) {
                sent += static_cast<std::size_t>(count);
            } else if (count == -1 && errno != EAGAIN && errno != EINTR) {
                return -1;
            }
        }
        return static_cast<ssize_t>(size);
    }

    void waitForPeerToLeave() {
        std::array<char, 4096> ignored{};
        while (waitOrStop(m_socket, POLLIN, m_stop, 24h) &&
               recv(m_socket, ignored.data(), ignored.size(), 0) > 0) {
        }
    }

    const int m_socket;
    const int m_stop;
    std::string m_input;
    std::string m_target;
    Wire m_wire = Wire::Reply;
};

}  // namespace

HttpServer::HttpServer(RegistrationService* service)
    : m_service(service), m_stop(eventfd(0, EFD_CLOEXEC)) {
    set_pre_routing_handler([](const httplib::Request&, httplib::Response& response) {
        answer(&response);
        return HandlerResponse::Handled;
    });
    new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    // Not the library's own choice, with which two servers could share a port unnoticed.
    set_socket_options([](socket_t socket) {
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
}

HttpServer::~HttpServer() {
    stopServing();
}

std::uint16_t HttpServer::bindTo(const std::string& address, std::uint16_t port) {
    errno = 0;
    if (port == 0) {
        const int chosen = bind_to_any_port(address);
        return chosen > 0 ? static_cast<std::uint16_t>(chosen) : std::uint16_t{0};
    }
    return bind_to_port(address, port) ? port : std::uint16_t{0};
}

void HttpServer::startServing() {
    m_thread = std::thread([this] { listen_after_bind(); });
    // Until it runs, the library ignores that it is told to stop.
    while (!is_running()) {
        std::this_thread::sleep_for(1ms);
    }
}

void HttpServer::stopServing() {
    if (!m_thread.joinable()) {
        return;
    }
    const std::uint64_t one = 1;
    if (::write(m_stop.get(), &one, sizeof one) != sizeof one) {
        std::perror("pushsim: eventfd");
    }
    stop();
    m_thread.join();
}

bool HttpServer::process_and_close_socket(socket_t socket) {
    const Socket owner(socket);
    WireStream stream(socket, m_stop.get());
    if (!stream.readRequestLine()) {
        return false;
    }
    Reply reply;
    t_reply = &reply;
    bool closed = false;
    const bool done = process_request(stream, true, closed, [&](httplib::Request& request) {
        if (request.method != "GET") {
            reply.answer.status = 405;
            reply.answer.body = "only GET";
            return;
        }
        reply = m_service->handle(stream.target());
        stream.misbehave(reply.answer.wire);
        stream.pause(reply.answer.delay);
    });
    t_reply = nullptr;
    shutdown(socket, SHUT_RDWR);
    return done;
}

void HttpServer::answer(httplib::Response* response) {
    const Answer& answer = t_reply->answer;
    response->status = answer.status;
    response->set_content(answer.body, "text/plain");
    if (answer.portHeader != PortHeader::None) {
        response->set_header("vex-device-ovra-port", t_reply->portText);
    }
}
