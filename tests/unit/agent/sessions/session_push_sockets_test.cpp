// The push connections that wait for their application: kept, answered to the byte, closed once.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <thread>

#include "agent/sessions/session.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/file_limit.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/scarce_memory.hpp"

namespace {

class PushSockets : public SessionsTest {
  protected:
    // Gives a connection to the session, which owns it from then on.
    int keep(const std::string& pushId, Connected* connection) {
        const int socket = connection->here;
        connection->here = -1;
        return m_session.addPushSocket(pushId, socket);
    }

    std::string number(int value) const { return std::to_string(value); }

    QuilSession m_session{"app", "@ipc.1"};
};

// Senders that hang up are given a second.
class DeadPushSockets : public PushSockets {
  protected:
    DeadPushSockets() { m_platform.configure("push-timeout 1\n"); }

    // A TCP connection kept under that id; gives the sender's end.
    int keepTcp(const std::string& pushId, int expected = 1) {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_TRUE(bindLoopback(listener));
        EXPECT_EQ(listen(listener, 1), 0);
        const int sender = connectLoopback(boundPort(listener));
        const int accepted = accept(listener, nullptr, nullptr);
        close(listener);
        EXPECT_EQ(m_session.addPushSocket(pushId, accepted), expected);
        return sender;
    }
    bool isKept(const std::string& pushId) { return m_session.getPushSocket(pushId) != nullptr; }
    static void waitForTheirTime() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }
};

std::string localTime(std::time_t when) {
    char text[32] = {};
    ctime_r(&when, text);
    return text;
}

}  // namespace

TEST_F(PushSockets, PushSocketClosesItsDescriptor) {
    Connected connection;
    const int socket = connection.here;
    connection.here = -1;
    {
        const QuilPushSocket kept("p1", socket);
        EXPECT_EQ(kept.getPushId(), "p1");
        EXPECT_EQ(kept.getSocket(), socket);
        EXPECT_TRUE(isOpen(socket));
    }
    EXPECT_FALSE(isOpen(socket));
    EXPECT_EQ(recordedText(), "");
}

TEST_F(PushSockets, PushSocketWithoutDescriptorClosesNothing) {
    { const QuilPushSocket none("p1", -1); }
    EXPECT_EQ(recordedText(), "");
}

TEST_F(PushSockets, PushSocketLogsACloseThatFailed) {
    Connected connection;
    const int socket = connection.here;
    connection.here = -1;
    {
        const QuilPushSocket kept("p1", socket);
        close(socket);
    }
    EXPECT_EQ(recordedText(), "2 pushId[p1]: Error closing socket[" + number(socket) + "]\n");
}

TEST_F(PushSockets, ReleasedPushSocketLeavesTheDescriptorOpen) {
    const Connected connection;
    {
        QuilPushSocket kept("p1", connection.here);
        kept.release();
    }
    EXPECT_TRUE(isOpen(connection.here));
}

TEST_F(PushSockets, AddedOneIsFoundUnderItsId) {
    Connected connection;
    const int socket = connection.here;
    EXPECT_EQ(keep("p1", &connection), 1);
    const std::shared_ptr<QuilPushSocket> found = m_session.getPushSocket("p1");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->getSocket(), socket);
    EXPECT_EQ(found->getPushId(), "p1");
    EXPECT_EQ(recordedText(), "6 QuilSession::addPushSocket: adding push id[p1] socket [" +
                                  number(socket) +
                                  "]\n6 QuilSession::addPushSocket: return_code = 1\n"
                                  "6 getPushSocket: get [p1] size of map 1\n");
    m_session.deletePushSocket("p1");
}

TEST_F(PushSockets, DescriptorsBelow1AreRefused) {
    for (const int socket : {0, -1, -5}) {
        clearRecordedLines();
        EXPECT_EQ(m_session.addPushSocket("p1", socket), 0);
        EXPECT_EQ(recordedText(),
                  "3 QuilSession::addPushSocket -- attempt to add invalid client Push Socket\n");
    }
    EXPECT_EQ(m_session.getPushSocket("p1"), nullptr);
    EXPECT_TRUE(isOpen(0)) << "a refused descriptor is not closed";
}

TEST_F(PushSockets, SecondOneUnderAnIdIsClosedAndTheFirstStays) {
    Connected first;
    Connected second;
    const int firstSocket = first.here;
    const int secondSocket = second.here;
    keep("p1", &first);
    clearRecordedLines();
    EXPECT_EQ(keep("p1", &second), 0);
    EXPECT_EQ(m_session.getPushSocket("p1")->getSocket(), firstSocket);
    EXPECT_TRUE(isOpen(firstSocket));
    EXPECT_FALSE(isOpen(secondSocket));
    EXPECT_TRUE(second.isClosedWithoutAByte());
    EXPECT_TRUE(wasLogged(6, "QuilSession::addPushSocket: return_code = 0")) << recordedText();
    m_session.deletePushSocket("p1");
}

TEST_F(PushSockets, OutOfMemoryWhileAddingClosesTheConnection) {
    const std::string pushId = longText('p');
    int failures = 0;
    for (int added = 0; added == 0; ++failures) {
        ASSERT_LT(failures, 20);
        Connected connection;
        const int socket = connection.here;
        clearRecordedLines();
        const ScarceMemory memory(kLongTextBytes, failures);
        added = keep(pushId, &connection);
        if (added == 0) {
            ASSERT_FALSE(isOpen(socket)) << "after failure " << failures;
            ASSERT_EQ(m_session.getPushSocket(pushId), nullptr);
            ASSERT_TRUE(wasLogged(3,
                                  "QuilSession::addPushSocket: exception occurred when adding "
                                  "push id[" +
                                      pushId + "] socket [" + number(socket) + "]"));
            ASSERT_TRUE(wasLogged(6, "QuilSession::addPushSocket: return_code = 0"));
        }
    }
    EXPECT_EQ(failures, 3) << "two copies of the id are made: one kept, one as the key";
    m_session.deletePushSocket(pushId);
}

TEST_F(PushSockets, UnknownIdIsNotFound) {
    clearRecordedLines();
    EXPECT_EQ(m_session.getPushSocket("p1"), nullptr);
    EXPECT_EQ(recordedText(), "6 getPushSocket: get [p1] size of map 0\n");
}

TEST_F(PushSockets, EmptyIdIsNeitherFoundNorDeleted) {
    Connected connection;
    const int socket = connection.here;
    keep("", &connection);
    clearRecordedLines();
    EXPECT_EQ(m_session.getPushSocket(""), nullptr);
    m_session.deletePushSocket("");
    EXPECT_TRUE(isOpen(socket));
    EXPECT_EQ(recordedText(),
              "6 getPushSocket: get [] size of map 1\n6 getPushSocket: get [] map size [1]\n");
    close(socket);
}

TEST_F(PushSockets, EmptyIdTakesNoLock) {
    // A state's slot runs under the session's lock; another thread must get through with "".
    class Holding : public QuilBaseState {
      public:
        void doCreate(QuilSession& session) override {
            std::thread other([&session, this] {
                session.getPushSocket("");
                session.deletePushSocket("");
                m_isDone = true;
            });
            isThrough = waitUntil([this] { return m_isDone.load(); });
            other.join();
        }
        bool isThrough = false;

      private:
        std::atomic<bool> m_isDone{false};
    };
    auto state = std::make_unique<Holding>();
    Holding& holding = *state;
    m_session.setState(std::move(state));
    m_session.processEvent(EVENT_CREATE);
    EXPECT_TRUE(holding.isThrough);
}

TEST_F(PushSockets, DeleteClosesAndForgets) {
    Connected connection;
    const int socket = connection.here;
    keep("p1", &connection);
    clearRecordedLines();
    m_session.deletePushSocket("p1");
    EXPECT_FALSE(isOpen(socket));
    EXPECT_TRUE(connection.isClosedWithoutAByte());
    EXPECT_EQ(recordedText(),
              "6 getPushSocket: get [p1] map size [1]\n6 deletePushSocket: map size[0]\n");
    EXPECT_EQ(m_session.getPushSocket("p1"), nullptr);
}

TEST_F(PushSockets, DeleteOfAnUnknownIdLeavesTheOthers) {
    Connected connection;
    const int socket = connection.here;
    keep("p1", &connection);
    clearRecordedLines();
    m_session.deletePushSocket("p2");
    EXPECT_TRUE(isOpen(socket));
    EXPECT_EQ(recordedText(), "6 getPushSocket: get [p2] map size [1]\n");
    m_session.deletePushSocket("p1");
}

TEST_F(PushSockets, AcknowledgementIsExactly72Bytes) {
    Connected connection;
    keep("p1", &connection);
    const std::time_t before = std::time(nullptr);
    m_session.acknowledgePush("p1", true);
    const std::time_t after = std::time(nullptr);
    const std::string bytes = connection.readUntilClosed();
    ASSERT_EQ(bytes.size(), 72U) << bytes;
    const std::string head = "HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:";
    EXPECT_EQ(bytes.substr(0, 45), head);
    bool isNow = false;
    for (std::time_t when = before; when <= after; ++when) {
        isNow = isNow || bytes.substr(45, 25) == localTime(when);
    }
    EXPECT_TRUE(isNow) << bytes;
    EXPECT_EQ(bytes[69], '\n') << "the line feed that ends the date";
    EXPECT_EQ(bytes.substr(70), "\n\r");
}

TEST_F(PushSockets, AcknowledgementTellsTheLocalTime) {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    Connected connection;
    keep("p1", &connection);
    m_session.acknowledgePush("p1", true);
    const std::string bytes = connection.readUntilClosed();
    ASSERT_EQ(bytes.size(), 72U) << bytes;
    std::tm parts{};
    ASSERT_NE(strptime(bytes.substr(45, 24).c_str(), "%a %b %d %H:%M:%S %Y", &parts), nullptr)
        << bytes;
    const double behindUtc = std::difftime(timegm(&parts), std::time(nullptr));
    EXPECT_NEAR(behindUtc, 5.5 * 3600, 10);
}

TEST_F(PushSockets, AcknowledgementFollowsAChangedTimeZoneWithinASecond) {
    std::string hours;
    for (const char* zone : {"XYZ-3", "XYZ-9"}) {
        setenv("TZ", zone, 1);
        const std::time_t second = std::time(nullptr);
        waitUntil([second] { return std::time(nullptr) != second; });
        Connected connection;
        keep("p1", &connection);
        m_session.acknowledgePush("p1", true);
        const std::string bytes = connection.readUntilClosed();
        ASSERT_EQ(bytes.size(), 72U) << bytes;
        hours += bytes.substr(45 + 11, 2) + " ";
    }
    const int before = std::stoi(hours);
    const int after = std::stoi(hours.substr(3));
    EXPECT_EQ((after - before + 24) % 24, 6) << hours;
}

TEST_F(PushSockets, AcknowledgementArrivesOverTcp) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_TRUE(bindLoopback(listener));
    ASSERT_EQ(listen(listener, 1), 0);
    Connected connection;
    close(connection.here);
    close(connection.there);
    connection.there = connectLoopback(boundPort(listener));
    ASSERT_NE(connection.there, -1);
    connection.here = accept(listener, nullptr, nullptr);
    close(listener);
    keep("p1", &connection);
    m_session.acknowledgePush("p1", true);
    EXPECT_EQ(connection.readUntilClosed().size(), 72U);
}

TEST_F(PushSockets, AcknowledgementIsLoggedWithItsLengths) {
    Connected connection;
    keep("p1", &connection);
    clearRecordedLines();
    m_session.acknowledgePush("p1", true);
    const std::string bytes = connection.readUntilClosed();
    EXPECT_EQ(recordedText(), "6 getPushSocket: get [p1] size of map 1\n6 Sent [" + bytes +
                                  "] actual len[72] len[72]\n"
                                  "6 getPushSocket: get [p1] map size [1]\n"
                                  "6 deletePushSocket: map size[0]\n");
}

TEST_F(PushSockets, RejectedPushIsClosedWithoutAByte) {
    Connected connection;
    keep("p1", &connection);
    m_session.acknowledgePush("p1", false);
    EXPECT_TRUE(connection.isClosedWithoutAByte());
    EXPECT_EQ(m_session.getPushSocket("p1"), nullptr);
}

TEST_F(PushSockets, SecondAnswerToAPushFindsNothing) {
    Connected connection;
    keep("p1", &connection);
    m_session.acknowledgePush("p1", true);
    clearRecordedLines();
    m_session.acknowledgePush("p1", true);
    EXPECT_EQ(recordedText(),
              "6 getPushSocket: get [p1] size of map 0\n2 Failed to find pushId[p1]\n");
}

TEST_F(PushSockets, AnswerToAnUnknownPushIsLoggedAlsoForARejection) {
    for (const bool isAccepted : {true, false}) {
        clearRecordedLines();
        m_session.acknowledgePush("nobody", isAccepted);
        EXPECT_TRUE(wasLogged(2, "Failed to find pushId[nobody]")) << recordedText();
    }
}

TEST_F(PushSockets, SenderThatIsGoneIsClosedAllTheSame) {
    Connected connection;
    const int socket = connection.here;
    keep("p1", &connection);
    close(connection.there);
    connection.there = -1;
    clearRecordedLines();
    m_session.acknowledgePush("p1", true);
    EXPECT_FALSE(isOpen(socket));
    EXPECT_NE(recordedText().find("] actual len[-1] len[72]\n"), std::string::npos)
        << recordedText();
}

TEST_F(PushSockets, SenderThatDoesNotReadHoldsUpNobodyElse) {
    Connected stuck;
    Connected other;
    const std::string filler(4096, 'f');
    std::size_t filled = 0;
    for (;;) {
        const ssize_t count = send(stuck.here, filler.data(), filler.size(), MSG_DONTWAIT);
        if (count <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    keep("stuck", &stuck);
    keep("other", &other);
    std::atomic<bool> isStuckDone{false};
    std::thread answering([&] {
        m_session.acknowledgePush("stuck", true);
        isStuckDone = true;
    });
    std::atomic<bool> isOtherDone{false};
    std::thread working([&] {
        m_session.acknowledgePush("other", false);
        m_session.setToken("t");
        isOtherDone = true;
    });
    EXPECT_TRUE(waitUntil([&] { return isOtherDone.load(); }));
    EXPECT_FALSE(isStuckDone);
    EXPECT_TRUE(other.isClosedWithoutAByte());
    EXPECT_EQ(stuck.readUntilClosed().size(), filled + 72);
    answering.join();
    working.join();
}

TEST_F(PushSockets, PushesAreKeptApart) {
    Connected first;
    Connected second;
    keep("p1", &first);
    keep("p2", &second);
    m_session.acknowledgePush("p2", false);
    EXPECT_TRUE(second.isClosedWithoutAByte());
    EXPECT_FALSE(first.isClosedWithoutAByte());
    m_session.acknowledgePush("p1", true);
    EXPECT_EQ(first.readUntilClosed().size(), 72U);
}

TEST_F(PushSockets, StayUsableAfterListeningStopped) {
    Connected connection;
    keep("p1", &connection);
    m_session.stopListenOnPort();
    m_session.acknowledgePush("p1", true);
    EXPECT_EQ(connection.readUntilClosed().size(), 72U);
}

TEST_F(PushSockets, DestroyedSessionLeavesWaitingConnectionsOpen) {
    const Connected connection;
    auto session = std::make_unique<QuilSession>("app", "@ipc.1");
    session->addPushSocket("p1", connection.here);
    session.reset();
    EXPECT_TRUE(isOpen(connection.here));
    EXPECT_FALSE(connection.isClosedWithoutAByte());
}

TEST_F(DeadPushSockets, SenderThatHungUpIsLetGoAfterItsTime) {
    close(keepTcp("dead"));
    const int alive = keepTcp("alive");
    EXPECT_EQ(m_session.letGoOfDeadPushSockets(), 0);
    EXPECT_TRUE(isKept("dead")) << "it was given no time";
    waitForTheirTime();
    EXPECT_EQ(m_session.letGoOfDeadPushSockets(), 1);
    EXPECT_FALSE(isKept("dead"));
    EXPECT_TRUE(isKept("alive"));
    EXPECT_TRUE(wasLogged(6, "QuilSession: sender of push id[dead] hung up, let go"));
    close(alive);
}

TEST_F(DeadPushSockets, SenderThatClosedItsWritingHalfCanBeAnsweredUntilThen) {
    const int sender = keepTcp("half");
    shutdown(sender, SHUT_WR);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const int other = keepTcp("other");
    m_session.acknowledgePush("half", true);
    char bytes[128];
    EXPECT_EQ(recv(sender, bytes, sizeof bytes, MSG_WAITALL), 72);
    close(sender);
    close(other);
}

TEST_F(DeadPushSockets, RetryUnderTheSameIdTakesThePlaceOfASenderThatHungUpAtOnce) {
    close(keepTcp("id"));
    const int taken = keepTcp("id");
    m_session.acknowledgePush("id", true);
    char bytes[128];
    EXPECT_EQ(recv(taken, bytes, sizeof bytes, MSG_WAITALL), 72);
    close(taken);
}

TEST_F(DeadPushSockets, RetryUnderTheSameIdTakesThePlaceOfASenderThatResetItsConnection) {
    const int reset = keepTcp("id");
    const linger abort{1, 0};
    setsockopt(reset, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close(reset);
    const int taken = keepTcp("id");
    m_session.acknowledgePush("id", true);
    char bytes[128];
    EXPECT_EQ(recv(taken, bytes, sizeof bytes, MSG_WAITALL), 72);
    close(taken);
}

TEST_F(DeadPushSockets, SenderThatHungUpKeepsItsPlaceBesideOtherIds) {
    const int half = keepTcp("half");
    shutdown(half, SHUT_WR);
    const int other = keepTcp("other");
    EXPECT_TRUE(isKept("half"));
    close(half);
    close(other);
}

// One session must leave the others some descriptors.
TEST_F(DeadPushSockets, BeyondHalfOfTheDescriptorsTheOldestIsGivenUp) {
    const FileLimit limit(60);
    for (int i = 0; i < 30; ++i) {
        Connected pair;
        keep("p" + std::to_string(i), &pair);
    }
    EXPECT_TRUE(isKept("p0"));
    Connected pair;
    keep("p30", &pair);
    EXPECT_FALSE(isKept("p0"));
    EXPECT_TRUE(isKept("p1"));
    EXPECT_TRUE(isKept("p30"));
    EXPECT_TRUE(wasLogged(
        3, "QuilSession::addPushSocket: oldest push id[p0] given up: 30 wait for an answer"))
        << recordedText();
}

TEST_F(PushSockets, ConnectionIsGivenBackOnlyAsLongAsItIsTheOneThatIsKept) {
    Connected first;
    const int number_ = first.here;
    keep("p1", &first);
    EXPECT_FALSE(m_session.giveBackPushSocket("p1", number_ + 1));
    EXPECT_FALSE(m_session.giveBackPushSocket("p2", number_));
    EXPECT_TRUE(m_session.giveBackPushSocket("p1", number_));
    EXPECT_TRUE(isOpen(number_));
    EXPECT_EQ(m_session.getPushSocket("p1"), nullptr);
    EXPECT_FALSE(m_session.giveBackPushSocket("p1", number_));
    close(number_);
}
