// Many pushes to many applications, as fast as they are taken, by one process that plays all of
// them: every other sender waits for the acknowledgement, which its application asks for at once.
//
//     hostile_load OBJECT PUSHES AT-ONCE APPLICATION=PORT...
//
// The applications have their channels already. Five times a second it prints how many pushes are
// done, delivered, acknowledged and refused, and the same at the end. Exit status: 0 all pushes
// were delivered and, where the sender waited, acknowledged; 1 not, or nothing came on for ten
// seconds; 2 wrong arguments.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kAcknowledgementBytes = 72;
constexpr std::size_t kReadBytes = 1 << 20;
constexpr std::size_t kDataBytes = 200;
constexpr int kPollMilliseconds = 100;
constexpr std::chrono::milliseconds kReportEvery{200};
constexpr std::chrono::seconds kPatience{10};

struct Counts {
    long begun = 0;
    long done = 0;
    long delivered = 0;
    long acknowledged = 0;
    long refused = 0;
};

struct Application {
    std::string name;
    std::uint16_t port = 0;
    int file = -1;
    std::string pending;             // read, and not whole yet
    std::deque<std::string> toSend;  // requests that the agent's queue had no room for
};

struct Sender {
    int socket = -1;
    bool waits = false;
    bool isSent = false;
    std::size_t received = 0;
};

class Load {
  public:
    Load(std::vector<Application> applications, long pushes, std::size_t atOnce)
        : m_applications(std::move(applications)), m_pushes(pushes), m_senders(atOnce) {}

    bool connect(const char* object);
    int run();

  private:
    void begin(Sender& sender);
    void serveSender(Sender& sender, short events);
    void sendPush(Sender& sender);
    void finish(Sender& sender);
    void serveApplication(Application& application);
    void take(Application& application, std::string_view message);
    void request(Application& application, std::string text);
    void pollAll();
    void report(const char* what) const;
    bool isOver() const { return m_counts.done == m_pushes && m_counts.delivered >= m_pushes; }

    std::vector<Application> m_applications;
    long m_pushes;
    std::vector<Sender> m_senders;
    Counts m_counts;
    std::vector<char> m_buffer = std::vector<char>(kReadBytes);
};

std::string requestText(const char* name, std::string_view id, const std::string& application) {
    return "msg::" + std::string(name) + "\nid::" + std::string(id) +
           "\ndat:json:{\"providerApplicationId\":\"" + application + "\"}\n";
}

bool Load::connect(const char* object) {
    for (Application& application : m_applications) {
        application.file = open(object, O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (application.file < 0) {
            std::perror(object);
            return false;
        }
        request(application, requestText("createSession", "s", application.name));
        pollfd watched = {application.file, POLLIN, 0};
        if (poll(&watched, 1, 5000) != 1 ||
            read(application.file, m_buffer.data(), m_buffer.size()) <= 0) {
            std::fprintf(stderr, "no session for %s\n", application.name.c_str());
            return false;
        }
    }
    return true;
}

void Load::request(Application& application, std::string text) {
    if (application.toSend.empty() &&
        write(application.file, text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
        return;
    }
    application.toSend.push_back(std::move(text));
}

void Load::begin(Sender& sender) {
    const Application& application =
        m_applications[static_cast<std::size_t>(m_counts.begun) % m_applications.size()];
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(application.port);
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        return;
    }
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
        errno != EINPROGRESS) {
        close(socket);  // for want of a port; a later pass tries again
        return;
    }
    const auto round = m_counts.begun / static_cast<long>(m_applications.size());
    sender = {socket, round % 2 == 0, false, 0};
    ++m_counts.begun;
}

void Load::sendPush(Sender& sender) {
    static const std::string kData(kDataBytes, 'd');
    static long number = 0;
    const std::string push = "POST /x HTTP/1.1\r\nContent-Length: " + std::to_string(kDataBytes) +
                             "\r\nPush-Message-ID: p" + std::to_string(++number) + "\r\n\r\n" +
                             kData;
    // The end of the stream goes out together with the last byte where nobody waits.
    const int flags = MSG_NOSIGNAL | (sender.waits ? 0 : MSG_MORE);
    if (send(sender.socket, push.data(), push.size(), flags) != static_cast<ssize_t>(push.size())) {
        finish(sender);
        return;
    }
    if (!sender.waits) {
        shutdown(sender.socket, SHUT_WR);
    }
    sender.isSent = true;
}

void Load::finish(Sender& sender) {
    close(sender.socket);
    sender.socket = -1;
    ++m_counts.done;
    const bool isGood =
        sender.isSent && sender.received == (sender.waits ? kAcknowledgementBytes : 0);
    if (!isGood) {
        ++m_counts.refused;
    } else if (sender.waits) {
        ++m_counts.acknowledged;
    }
}

void Load::serveSender(Sender& sender, short events) {
    if (!sender.isSent && (events & (POLLERR | POLLHUP)) == 0) {
        sendPush(sender);
        return;
    }
    std::array<char, 256> answer{};
    const ssize_t count = recv(sender.socket, answer.data(), answer.size(), 0);
    if (count > 0) {
        sender.received += static_cast<std::size_t>(count);
    } else if (count == 0 || errno != EAGAIN) {
        sender.isSent = sender.isSent && count == 0;
        finish(sender);
    }
}

void Load::take(Application& application, std::string_view message) {
    if (message.find("\nmsg::pushNotification\n") == std::string_view::npos) {
        return;
    }
    ++m_counts.delivered;
    constexpr std::string_view kId = "\nid::";
    const std::size_t from = message.find(kId) + kId.size();
    if (message.find("\"appLevelAck\":1") != std::string_view::npos) {
        const std::string_view id = message.substr(from, message.find('\n', from) - from);
        request(application, requestText("acceptPush", id, application.name));
    }
}

void Load::serveApplication(Application& application) {
    const ssize_t count = read(application.file, m_buffer.data(), m_buffer.size());
    if (count <= 0) {
        return;
    }
    application.pending.append(m_buffer.data(), static_cast<std::size_t>(count));
    std::string_view rest = application.pending;
    if (rest.empty() || rest.back() != '\n') {
        return;
    }
    while (!rest.empty()) {
        const std::size_t next = rest.find("\n@ipc\n");
        take(application, rest.substr(0, next == std::string_view::npos ? next : next + 1));
        rest = next == std::string_view::npos ? std::string_view() : rest.substr(next + 1);
    }
    application.pending.clear();
}

void Load::pollAll() {
    std::vector<pollfd> watched;
    for (const Application& application : m_applications) {
        watched.push_back({application.file, POLLIN, 0});
    }
    for (const Sender& sender : m_senders) {
        const int events = sender.isSent ? POLLIN : POLLOUT;
        watched.push_back({sender.socket, static_cast<short>(events), 0});
    }
    if (poll(watched.data(), watched.size(), kPollMilliseconds) <= 0) {
        return;
    }
    for (std::size_t i = 0; i < watched.size(); ++i) {
        if (watched[i].revents == 0) {
            continue;
        }
        if (i < m_applications.size()) {
            serveApplication(m_applications[i]);
        } else {
            serveSender(m_senders[i - m_applications.size()], watched[i].revents);
        }
    }
}

void Load::report(const char* what) const {
    std::printf("%s %ld %ld %ld %ld\n", what, m_counts.done, m_counts.delivered,
                m_counts.acknowledged, m_counts.refused);
    std::fflush(stdout);
}

int Load::run() {
    auto reported = Clock::now();
    auto moved = reported;
    Counts before;
    while (!isOver()) {
        for (Sender& sender : m_senders) {
            if (sender.socket < 0 && m_counts.begun < m_pushes) {
                begin(sender);
            }
        }
        pollAll();
        for (Application& application : m_applications) {
            std::deque<std::string> waiting = std::move(application.toSend);
            application.toSend.clear();
            for (std::string& text : waiting) {
                request(application, std::move(text));
            }
        }
        const auto now = Clock::now();
        if (m_counts.done != before.done || m_counts.delivered != before.delivered) {
            before = m_counts;
            moved = now;
        } else if (now - moved > kPatience) {
            break;
        }
        if (now - reported > kReportEvery) {
            reported = now;
            report("at");
        }
    }
    report("end");
    return isOver() && m_counts.refused == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kFirstApplication = 4;
    if (argc <= kFirstApplication) {
        std::fputs("Usage: hostile_load OBJECT PUSHES AT-ONCE APPLICATION=PORT...\n", stderr);
        return 2;
    }
    std::vector<Application> applications;
    for (int i = kFirstApplication; i < argc; ++i) {
        const std::string word = argv[i];
        const std::size_t sign = word.find('=');
        if (sign == std::string::npos) {
            return 2;
        }
        Application application;
        application.name = word.substr(0, sign);
        application.port = static_cast<std::uint16_t>(std::atoi(word.c_str() + sign + 1));
        applications.push_back(std::move(application));
    }
    Load load(std::move(applications), std::atol(argv[2]),
              static_cast<std::size_t>(std::atol(argv[3])));
    return load.connect(argv[1]) ? load.run() : 1;
}
