// Each connection has a thread, which may wait: for the time of a delayed answer, or for the peer
// of a connection that hangs to leave.

#include "pushsim/http_server.hpp"

#include <microhttpd.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr unsigned kPeerTimeoutSeconds = 30;
// Room for a request line and its headers.
constexpr std::size_t kLongestRequestBytes = 98304;
// Those that hang or are delayed among them.
constexpr unsigned kMostConnections = 256;
constexpr const char* kPortHeader = "vex-device-ovra-port";
constexpr std::string_view kGarbage("\x16\x03\x01\x00 this is no HTTP \xff\xfe\r\n\r\n", 27);

struct DestroyResponse {
    void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};

// The request of a connection, from its first line on. Null for a line without a target.
void* takeTarget(void* /*server*/, const char* target, MHD_Connection* /*connection*/) {
    return target == nullptr ? nullptr : new (std::nothrow) std::string(target);
}

void forgetTarget(void* /*server*/, MHD_Connection* /*connection*/, void** request,
                  MHD_RequestTerminationCode /*why*/) {
    delete static_cast<std::string*>(std::exchange(*request, nullptr));
}

bool queue(MHD_Connection* connection, int status, const std::string& body,
           const std::string* portHeader) {
    const std::unique_ptr<MHD_Response, DestroyResponse> response(MHD_create_response_from_buffer(
        body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY));
    if (response == nullptr) {
        return false;
    }
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONNECTION, "close");
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain");
    if (portHeader != nullptr) {
        MHD_add_response_header(response.get(), kPortHeader, portHeader->c_str());
    }
    return MHD_queue_response(connection, static_cast<unsigned>(status), response.get()) == MHD_YES;
}

MHD_Result handle(void* server, MHD_Connection* connection, const char* /*path*/,
                  const char* method, const char* /*version*/, const char* /*body*/,
                  std::size_t* /*bodyBytes*/, void** request) {
    const auto* target = static_cast<const std::string*>(*request);
    if (target == nullptr) {
        return MHD_NO;
    }
    try {
        const bool isGet = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0;
        return static_cast<HttpServer*>(server)->serve(connection, *target, isGet) ? MHD_YES
                                                                                   : MHD_NO;
    } catch (...) {
        return MHD_NO;  // the library is C
    }
}

// An answer that the library does not write.
void sendByHand(int socket, std::string_view bytes) {
    const auto deadline = Clock::now() + std::chrono::seconds(kPeerTimeoutSeconds);
    while (!bytes.empty() && waitFor(socket, POLLOUT, deadline) == Ready::Yes) {
        const ssize_t count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EAGAIN && errno != EINTR) {
            return;
        }
    }
}

// The library knows no header without a value.
std::string withEmptyPortHeader(const Answer& answer) {
    return "HTTP/1.1 " + std::to_string(answer.status) + " " +
           MHD_get_reason_phrase_for(static_cast<unsigned>(answer.status)) +
           "\r\nConnection: close\r\nContent-Type: text/plain\r\n" + kPortHeader +
           ": \r\nContent-Length: " + std::to_string(answer.body.size()) + "\r\n\r\n" + answer.body;
}

int socketOf(MHD_Connection* connection) {
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

// Until the peer leaves or the server stops.
void hang(int socket, int stop) {
    std::array<char, 4096> ignored{};
    for (;;) {
        std::array<pollfd, 2> waits{pollfd{socket, POLLIN, 0}, pollfd{stop, POLLIN, 0}};
        const int count = poll(waits.data(), waits.size(), -1);
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0 || waits[1].revents != 0 ||
            recv(socket, ignored.data(), ignored.size(), MSG_DONTWAIT) <= 0) {
            return;
        }
    }
}

}  // namespace

HttpServer::HttpServer(RegistrationService* service)
    : m_service(service), m_stop(eventfd(0, EFD_CLOEXEC)) {}

HttpServer::~HttpServer() {
    stopServing();
}

std::uint16_t HttpServer::bindTo(const std::string& address, std::uint16_t port,
                                 std::string* error) {
    std::uint16_t bound = port;
    m_listener = listenOn(address, &bound, error);
    return m_listener.isOpen() ? bound : std::uint16_t{0};
}

bool HttpServer::startServing() {
    m_daemon = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION |
                                    MHD_USE_POLL | MHD_USE_ITC | MHD_USE_SUPPRESS_DATE_NO_CLOCK,
                                0, nullptr, nullptr, handle, this,                         //
                                MHD_OPTION_LISTEN_SOCKET, m_listener.get(),                //
                                MHD_OPTION_URI_LOG_CALLBACK, takeTarget, this,             //
                                MHD_OPTION_NOTIFY_COMPLETED, forgetTarget, this,           //
                                MHD_OPTION_CONNECTION_TIMEOUT, kPeerTimeoutSeconds,        //
                                MHD_OPTION_CONNECTION_LIMIT, kMostConnections,             //
                                MHD_OPTION_CONNECTION_MEMORY_LIMIT, kLongestRequestBytes,  //
                                MHD_OPTION_STRICT_FOR_CLIENT, -1, MHD_OPTION_END);
    if (m_daemon == nullptr) {
        return false;
    }
    m_listener.release();
    return true;
}

void HttpServer::stopServing() {
    if (m_daemon == nullptr) {
        return;
    }
    const std::uint64_t one = 1;
    if (::write(m_stop.get(), &one, sizeof one) != sizeof one) {
        std::perror("pushsim: eventfd");
    }
    MHD_stop_daemon(std::exchange(m_daemon, nullptr));
}

bool HttpServer::serve(MHD_Connection* connection, const std::string& target, bool isGet) {
    if (!isGet) {
        return queue(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET", nullptr);
    }
    const Reply reply = m_service->handle(target);
    const Answer& answer = reply.answer;
    if (answer.delay.count() > 0) {
        waitFor(m_stop.get(), POLLIN, Clock::now() + answer.delay);
    }
    switch (answer.wire) {
        case Wire::Reply:
            if (answer.portHeader == PortHeader::None) {
                return queue(connection, answer.status, answer.body, nullptr);
            }
            if (!reply.portText.empty()) {
                return queue(connection, answer.status, answer.body, &reply.portText);
            }
            sendByHand(socketOf(connection), withEmptyPortHeader(answer));
            break;
        case Wire::Hang:
            hang(socketOf(connection), m_stop.get());
            break;
        case Wire::Garbage:
            sendByHand(socketOf(connection), kGarbage);
            break;
        case Wire::Close:
            break;
    }
    return false;
}
