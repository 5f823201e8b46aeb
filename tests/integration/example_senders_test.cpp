// What the senders of examples/ make of a device that does not simply accept: a device of the
// test's own, which does with a connection what it is told.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "tests/support/child_process.hpp"
#include "tests/support/loopback.hpp"
#include "tests/support/scratch_root.hpp"

namespace {

constexpr const char* kAcknowledgement =
    "HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:Sat Nov 21 03:30:47 2026\n\n\r";

struct Behaviour {
    std::string answer{};   // written before the end
    bool isSilent = false;  // neither answers nor closes, until the sender has gone
    bool isReset = false;   // ends with a reset
    bool isUnread = false;  // ends without having read the push
};

// Takes one connection and does as told.
class OneConnection {
  public:
    explicit OneConnection(const Behaviour& behaviour)
        : m_listener(socket(AF_INET, SOCK_STREAM, 0)) {
        if (bindLoopback(m_listener) && listen(m_listener, 1) == 0) {
            m_thread = std::thread([this, behaviour] { serve(behaviour); });
        }
    }
    ~OneConnection() {
        shutdown(m_listener, SHUT_RDWR);
        if (m_thread.joinable()) {
            m_thread.join();
        }
        close(m_listener);
    }
    OneConnection(const OneConnection&) = delete;
    OneConnection& operator=(const OneConnection&) = delete;

    std::string port() const { return std::to_string(boundPort(m_listener)); }

  private:
    void serve(const Behaviour& behaviour) const {
        const int connection = accept(m_listener, nullptr, nullptr);
        char push[4096];
        if (!behaviour.isUnread) {
            (void)recv(connection, push, sizeof push, 0);
        }
        if (behaviour.isSilent) {
            (void)recv(connection, push, sizeof push, 0);
        }
        (void)send(connection, behaviour.answer.data(), behaviour.answer.size(), MSG_NOSIGNAL);
        if (behaviour.isReset) {
            const linger atOnce{1, 0};
            setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        }
        close(connection);
    }

    int m_listener;
    std::thread m_thread;
};

class ExampleSender : public ::testing::TestWithParam<const char*> {
  protected:
    // What the sender prints and its exit status.
    std::string sendTo(const std::string& port, const char* seconds = "20") {
        const std::string program =
            std::string(std::getenv("QUIL_SOURCE")) + "/examples/" + GetParam();
        EXPECT_TRUE(m_sender.start({program, "127.0.0.1", port, "m1", "hello", seconds}));
        const int status = m_sender.wait();
        const std::string output = m_sender.output();
        return output.substr(0, output.find_first_of(":\n")) + ", " + std::to_string(status);
    }
    std::string send(const Behaviour& behaviour, const char* seconds = "20") {
        const OneConnection device(behaviour);
        return sendTo(device.port(), seconds);
    }

    ScratchRoot m_root;
    ChildProcess m_sender{m_root.path("/sender.log")};
};

}  // namespace

TEST_P(ExampleSender, SaysAccepted) {
    EXPECT_EQ(send({.answer = kAcknowledgement}), "accepted, 0");
}

TEST_P(ExampleSender, SaysClosedWithoutAnAnswer) {
    EXPECT_EQ(send({}), "closed without an answer, 1");
}

TEST_P(ExampleSender, TakesAResetForAClose) {
    EXPECT_EQ(send({.isReset = true}), "closed without an answer, 1");
}

// As a device does to whom it does not allow to push. nc sees a reset that is quick enough while it
// still connects, and rightly says that nothing was delivered.
TEST_P(ExampleSender, TakesADeviceThatDoesNotReadForAClose) {
    const std::string seen = send({.isReset = true, .isUnread = true});
    const bool isNc = std::string(GetParam()) == "send_nc.sh";
    EXPECT_TRUE(seen == "closed without an answer, 1" || (isNc && seen == "not reached, 3"))
        << seen;
}

TEST_P(ExampleSender, SaysThatNobodyListens) {
    EXPECT_EQ(sendTo(std::to_string(freePort())), "not reached, 3");
}

TEST_P(ExampleSender, SaysThatTheAnswerDidNotComeInTime) {
    EXPECT_EQ(send({.isSilent = true}, "1"), "not answered in time, 4");
}

// The queue of the port is full, so the connection is not made.
TEST_P(ExampleSender, GivesUpAConnectionThatIsNotMade) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_TRUE(bindLoopback(listener) && listen(listener, 0) == 0);
    const int waiting = connectLoopback(boundPort(listener));
    const std::string seen = sendTo(std::to_string(boundPort(listener)), "1");
    EXPECT_EQ(seen,
              std::string(GetParam()) == "send.py" ? "not reached, 3" : "not answered in time, 4");
    close(waiting);
    close(listener);
}

TEST_P(ExampleSender, SaysThatAnAnswerIsNoAcknowledgement) {
    EXPECT_EQ(send({.answer = "HTTP/1.1 404 Not Found\r\n\r\n"}),
              "an answer that is no acknowledgement, 5");
}

TEST_P(ExampleSender, SaysHowItIsUsed) {
    const std::string program = std::string(std::getenv("QUIL_SOURCE")) + "/examples/" + GetParam();
    ASSERT_TRUE(m_sender.start({program, "127.0.0.1", "4400"}));
    EXPECT_EQ(m_sender.wait(), 2);
    EXPECT_NE(m_sender.output().find("Exit status: 0 accepted; 1 closed"), std::string::npos)
        << m_sender.output();
}

INSTANTIATE_TEST_SUITE_P(Examples, ExampleSender,
                         ::testing::Values("send.py", "send.bash", "send_nc.sh"),
                         [](const auto& sender) {
                             std::string name = sender.param;
                             name[name.find('.')] = '_';
                             return name;
                         });
