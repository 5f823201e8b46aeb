// Pushes that wait on the port of an application that is away: the agent was restarted meanwhile,
// the application comes back, and each push reaches it once or its sender is told.
//
// A port holds about six connections for its application. Further senders get no connection yet and
// go on trying, as TCP does, after one, three and seven seconds.
//
// A sender that does not wait for the answer closes its writing half and reads on: the end tells it
// that the device took the push, a reset that it did not. One that closes altogether learns
// nothing.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "tests/integration/device.hpp"

namespace {

constexpr const char* kExampleApp = "com.example.news";
constexpr std::chrono::milliseconds kAway{300};

// One push, sent without ever blocking.
class PatientSender {
  public:
    PatientSender(int port, std::string id, bool waits)
        : m_id(std::move(id)),
          m_waits(waits),
          m_text(makePush(" " + m_id, "x")),
          m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        if (connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
            errno != EINPROGRESS) {
            finish("not connected");
        }
    }
    ~PatientSender() { shut(); }
    PatientSender(const PatientSender&) = delete;
    PatientSender& operator=(const PatientSender&) = delete;

    // Does what can be done now.
    void step() {
        if (!isOver() && !m_isSent) {
            send();
        }
        if (!isOver() && m_isSent) {
            receive();
        }
    }

    const std::string& id() const { return m_id; }
    bool isSent() const { return m_isSent; }
    bool isOver() const { return !m_end.empty(); }
    // "taken" (of a sender that does not wait), "accepted", or what told the sender that the push
    // did not get through.
    const std::string& end() const { return m_end; }
    // Whether the application must have the push.
    bool isDelivered() const { return m_end == "taken" || m_end == "accepted"; }

  private:
    void send() {
        const ssize_t count = ::send(m_socket, m_text.data(), m_text.size(), MSG_NOSIGNAL);
        if (count < 0) {
            if (errno != EAGAIN && errno != ENOTCONN && errno != EINPROGRESS) {
                finish("not connected");
            }
            return;
        }
        m_isSent = true;
        if (!m_waits) {
            shutdown(m_socket, SHUT_WR);
        }
    }

    void receive() {
        char buffer[256];
        const ssize_t count = recv(m_socket, buffer, sizeof buffer, 0);
        if (count > 0) {
            m_answer.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0) {
            finish(!m_waits ? "taken" : isAcknowledgement(m_answer) ? "accepted" : "closed");
        } else if (errno != EAGAIN) {
            finish("reset");
        }
    }

    void finish(const std::string& end) {
        m_end = end;
        shut();
    }

    void shut() {
        if (m_socket >= 0) {
            close(m_socket);
        }
        m_socket = -1;
    }

    std::string m_id;
    bool m_waits;
    std::string m_text;
    int m_socket;
    bool m_isSent = false;
    std::string m_answer;
    std::string m_end;
};

class WaitingPushes : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        startServer();
        ASSERT_TRUE(startAgent({}));
    }

    static std::string example(const std::string& name) {
        return std::string(std::getenv("QUIL_SOURCE")) + "/examples/" + name;
    }

    void startApplication() {
        std::vector<std::string> words = m_program;
        words.insert(words.end(), {kExampleApp, ppgUrl()});
        ASSERT_TRUE(m_application.start(words));
    }

    void endApplication() {
        m_application.signal(SIGKILL);
        m_application.wait();
    }

    // How often the application showed the push.
    int timesShown(const std::string& id) {
        const std::string output = "\n" + m_application.output();
        const std::string line = "\npush " + id + ": ";
        int times = 0;
        for (std::size_t at = output.find(line); at != std::string::npos;
             at = output.find(line, at + 1)) {
            ++times;
        }
        return times;
    }

    std::size_t countShown(const std::vector<std::string>& ids) {
        return static_cast<std::size_t>(std::count_if(
            ids.begin(), ids.end(), [this](const std::string& id) { return timesShown(id) > 0; }));
    }

    // Whether all senders came to an end in time.
    static bool drive(const std::vector<std::unique_ptr<PatientSender>>& senders) {
        return waitUntil(
            [&] {
                bool isOver = true;
                for (const auto& sender : senders) {
                    sender->step();
                    isOver = isOver && sender->isOver();
                }
                return isOver;
            },
            40);
    }

    // The agent restarts while the application is away, and `count` pushes come, every second one
    // from a sender that waits for the answer. Then the application is back.
    void restartWithPushes(const std::string& name, int count) {
        endApplication();
        killAgent();
        ASSERT_TRUE(startAgent({}));
        const int port = portOf(kExampleApp);
        std::vector<std::unique_ptr<PatientSender>> senders;
        for (int i = 0; i < count; ++i) {
            senders.push_back(
                std::make_unique<PatientSender>(port, name + "-" + std::to_string(i), i % 2 == 0));
            senders.back()->step();
        }
        std::vector<std::string> waiting;
        for (const auto& sender : senders) {
            sender->step();
            if (sender->isSent()) {
                waiting.push_back(sender->id());
            }
        }
        ASSERT_GE(waiting.size(), std::min<std::size_t>(senders.size(), 5));
        // Somewhere between the senders' first try and their second.
        std::this_thread::sleep_for(kAway);
        const std::size_t before = m_application.output().size();
        startApplication();
        EXPECT_TRUE(drive(senders));
        // The channel asked for anew, and all that was taken shown.
        ASSERT_TRUE(m_application.waitForOutput(std::string("channel ") + kPin + "\n", before))
            << m_application.output();
        for (const auto& sender : senders) {
            if (sender->isDelivered()) {
                waiting.push_back(sender->id());
            }
        }
        waitUntil([&] { return countShown(waiting) == waiting.size(); }, 5);
        for (const std::string& id : waiting) {
            EXPECT_EQ(timesShown(id), 1) << "lost: " << id;
        }
        for (const auto& sender : senders) {
            m_delivered += sender->isDelivered() ? 1 : 0;
            m_told += sender->isDelivered() ? 0 : 1;
            m_ids.push_back(sender->id());
        }
    }

    void expectNothingTwice() {
        for (const std::string& id : m_ids) {
            EXPECT_LE(timesShown(id), 1) << id;
        }
        RecordProperty("delivered", m_delivered);
        RecordProperty("told", m_told);
        std::printf("%d delivered, %d refused or cut off with their senders' knowledge\n",
                    m_delivered, m_told);
    }

    // Plays `program` through so many restarts.
    void play(std::vector<std::string> program, int restarts, int pushes) {
        m_program = std::move(program);
        startApplication();
        ASSERT_TRUE(m_application.waitForOutput(std::string("channel ") + kPin + "\n"))
            << m_application.output();
        for (int i = 0; i < restarts && !HasFatalFailure(); ++i) {
            restartWithPushes("r" + std::to_string(i), pushes);
        }
        expectNothingTwice();
    }

    std::vector<std::string> m_program;
    std::vector<std::string> m_ids;
    int m_delivered = 0;
    int m_told = 0;
    ChildProcess m_application{m_root.path("/application.log")};
};

}  // namespace

TEST_F(WaitingPushes, ReachAnApplicationWithTheLibraryOverTenRestarts) {
    play({builtProgram("example_listen")}, 10, 20);
}

TEST_F(WaitingPushes, ReachAnApplicationInPython) {
    play({example("listen.py")}, 2, 12);
}

TEST_F(WaitingPushes, ReachAnApplicationInShell) {
    play({example("listen.sh")}, 2, 5);
}
