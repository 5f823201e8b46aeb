// The listener at its limits: size, time and descriptors.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <string>
#include <thread>

#include "tests/unit/agent/pushes/push_listener_fixture.hpp"

namespace {

constexpr std::size_t kMostPushBytes = 15360;
constexpr std::size_t kMostDataBytes = 11517;  // more does not fit as base64

// A header block of exactly `bytes`, which announces `contentLength` unless that is below 0.
std::string headerOf(std::size_t bytes, int contentLength) {
    std::string header = "POST /\r\n";
    if (contentLength >= 0) {
        header += "Content-Length:" + std::to_string(contentLength) + "\r\n";
    }
    header += "Fill:";
    header.append(bytes - header.size() - 4, 'f');
    return header + "\r\n\r\n";
}

std::string xs(std::size_t count) {
    return std::string(count, 'x');
}

// A signal handler that takes longer than a hurried push may.
void holdUp(int /*signal*/) {
    const timespec pause = {1, 200 * 1000 * 1000};
    nanosleep(&pause, nullptr);
}

class HurriedPushListener : public PushListener {
  protected:
    HurriedPushListener() : PushListener("push-timeout 1\n") {}
    static constexpr const char* kGivenUp =
        "serverIfProcessData: push for app id [app] not complete after 1 seconds";
};

class PatientPushListener : public PushListener {
  protected:
    PatientPushListener() : PushListener("push-timeout 0\n") {}
};

}  // namespace

TEST_F(PushListener, PushOf15360BytesWithoutContentLengthIsWhole) {
    const Peer sender(portNumber());
    sender.send(headerOf(kMostPushBytes - kMostDataBytes, -1) + xs(kMostDataBytes));
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getPayloadLength(), 15360);
    EXPECT_NE(push->getSocket(), -1);
    EXPECT_EQ(encoded(push.get()).size(), 15356U);
}

// It is complete after its one read, however full that was; what comes behind is no part of it.
TEST_F(PushListener, PushWithoutContentLengthThatFillsItsOneReadIsDeliveredAndWhatFollowsDropped) {
    const Peer sender(portNumber());
    sender.send(headerOf(5000, -1) + xs(kMostPushBytes + 1 - 5000));
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getPayloadLength(), 15360);
    EXPECT_EQ(push->getDataLength(), 10360);
    EXPECT_EQ(push->getSocket(), -1);
    EXPECT_EQ(encoded(push.get()).size(), (10360U + 2) / 3 * 4);
    EXPECT_TRUE(sender.seesClose());
}

TEST_F(PushListener, PushOf15360BytesWithContentLengthIsWhole) {
    const Peer sender(portNumber());
    sender.send(headerOf(kMostPushBytes - kMostDataBytes, 11517) + xs(kMostDataBytes));
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getPayloadLength(), 15360);
    EXPECT_NE(push->getSocket(), -1);
    EXPECT_EQ(encoded(push.get()).size(), 15356U);
}

TEST_F(PushListener, PushOf15361BytesWithContentLengthIsRefused) {
    const Peer sender(portNumber());
    sender.send(headerOf(5000, 10361) + xs(10361));
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getPayloadLength(), 15360);
    EXPECT_EQ(push->getDataLength(), 10361);
    EXPECT_EQ(encoded(push.get()), "error 10109");
}

TEST_F(PushListener, PushThatIsTooLargeIsNotReadToItsEnd) {
    const Peer sender(portNumber());
    std::atomic<bool> isOver = false;
    std::thread endless([&] {
        sender.trySend(headerOf(5000, 2000000000) + "x");
        while (!isOver && sender.trySend(xs(15360))) {
        }
    });
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getPayloadLength(), 15360);
    EXPECT_EQ(encoded(push.get()), "error 10109");
    // At most what is held, one read beyond and the read behind the push, none of it whole.
    EXPECT_LE(push->getDataLength(), 4 * 15360);
    if (push->getSocket() != -1) {
        serverIfClose(push->getSocket());
    }
    isOver = true;
    endless.join();
}

// Its sender stops, and waits, when all that can be held has come.
TEST_F(PushListener, PushThatAnnouncedMoreIsRefusedAsSoonAsThePayloadIsFull) {
    const Peer sender(portNumber());
    sender.send(headerOf(5000, 2000000) + xs(kMostPushBytes - 5000));
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    EXPECT_EQ(countSetAsideConnections(), 0) << "more was waited for";
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getPayloadLength(), 15360);
    EXPECT_EQ(push->getDataLength(), 10360);
    EXPECT_NE(push->getSocket(), -1);
    EXPECT_EQ(encoded(push.get()), "error 10109");
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "5 serverIfProcessData 1: recved [15360] bytes of data\n"
              "6 serverIfProcessData 1.1: recved [15360] bytes of data\n"
              "6 serverIfProcessData 2: recved [-1] bytes of data\n");
}

TEST_F(PushListener, PushThatFillsThePayloadInSeveralReadsIsRefusedAtOnceToo) {
    const Peer sender(portNumber());
    sender.send(headerOf(5000, 10361) + xs(10000));
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    ASSERT_EQ(countSetAsideConnections(), 1);
    sender.send(xs(360));
    ASSERT_TRUE(serveOnce(10));
    EXPECT_EQ(countSetAsideConnections(), 0) << "more was waited for";
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getDataLength(), 10360);
    EXPECT_EQ(encoded(push.get()), "error 10109");
}

// What was announced is there to the last byte.
TEST_F(PushListener, PushThatFillsThePayloadExactlyIsWhole) {
    const Peer sender(portNumber());
    sender.send(headerOf(5000, 10360) + xs(10359));
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    sender.send("x");
    ASSERT_TRUE(serveOnce(10));
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(encoded(push.get()).size(), (10360U + 2) / 3 * 4);
}

// Complete after its one read: nobody knows yet that data follows.
TEST_F(PushListener, HeaderBlockThatFillsThePushIsDeliveredWithoutDataWhenNothingFollows) {
    const Peer sender(portNumber());
    sender.send(headerOf(kMostPushBytes, 5));
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getDataLength(), 0);
    EXPECT_EQ(encoded(push.get()), "");
}

TEST_F(PushListener, HeaderBlockThatFillsThePushIsRefusedWhenDataFollows) {
    const Peer sender(portNumber());
    sender.send(headerOf(kMostPushBytes, 5) + "hello");
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(encoded(push.get()), "error 10109");
    EXPECT_EQ(push->getSocket(), -1);
}

TEST_F(PushListener, HeaderBlockThatNeverEndsIsRefused) {
    const Peer sender(portNumber());
    sender.send("POST /\r\nContent-Length:5\r\nFill:" + xs(20000));
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getPayloadLength(), 15360);
    EXPECT_EQ(encoded(push.get()), "error 10109");
}

TEST_F(PushListener, ExtraBytesBehindACompletePushCloseTheConnectionAndAreDropped) {
    const Peer sender(portNumber());
    // The first read takes exactly the push.
    sender.send(headerOf(kMostPushBytes - kMostDataBytes, 11517) + xs(kMostDataBytes) + "extra");
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getSocket(), -1);
    EXPECT_EQ(push->getDataLength(), 11517);
    EXPECT_EQ(encoded(push.get()).size(), 15356U);
    EXPECT_TRUE(sender.seesClose());
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "5 serverIfProcessData 1: recved [15360] bytes of data\n"
              "6 serverIfProcessData 1.1: recved [15360] bytes of data\n"
              "6 serverIfProcessData 2: recved [5] bytes of data\n"
              "6 close new socket ret. [0]\n");
}

TEST_F(PushListener, DataOf11517BytesIsDeliveredAndOneMoreIsNot) {
    for (const int count : {11517, 11518}) {
        const Peer sender(portNumber());
        sender.send(headerOf(100, count) + xs(static_cast<std::size_t>(count)));
        process();
        const auto push = takePush();
        ASSERT_NE(push, nullptr);
        EXPECT_EQ(push->getDataLength(), count);
        const std::string data = encoded(push.get());
        if (count == 11517) {
            EXPECT_EQ(data.size(), 15356U);
        } else {
            EXPECT_EQ(data, "error 10109");
        }
    }
}

TEST_F(HurriedPushListener, SilentSenderIsClosedWhenItsTimeIsUp) {
    const Peer sender(portNumber());
    const Stopwatch watch;
    process();
    EXPECT_GE(watch.seconds(), 0.9);
    EXPECT_LT(watch.seconds(), 30);
    EXPECT_FALSE(isQueued());
    EXPECT_TRUE(sender.seesClose());
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              std::string("3 ") + kGivenUp + "\n");
}

TEST_F(HurriedPushListener, SenderThatDripsIsClosedWhenItsTimeIsUp) {
    const Peer sender(portNumber());
    sender.send("POST /\r\nContent-Length: 1000000\r\n\r\nx");
    std::thread drip([&sender] {
        while (sender.trySend("x")) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    const Stopwatch watch;
    process();
    EXPECT_GE(watch.seconds(), 0.9);
    EXPECT_LT(watch.seconds(), 30);
    drip.join();
    EXPECT_FALSE(isQueued()) << "a part of a push was queued";
    EXPECT_TRUE(wasLogged(3, kGivenUp)) << recordedText();
    EXPECT_EQ(fcntl(m_nextHigh, F_GETFD), -1);
}

TEST_F(HurriedPushListener, SenderThatStopsInTheMiddleIsClosedWhenItsTimeIsUp) {
    const Peer sender(portNumber());
    sender.send(kExample.substr(0, 62));
    process();
    EXPECT_FALSE(isQueued());
    EXPECT_TRUE(sender.seesClose());
    EXPECT_TRUE(wasLogged(3, kGivenUp));
}

TEST_F(HurriedPushListener, TimeThatRunsOutWhileTheProcessIsHeldUpIsUp) {
    const Peer sender(portNumber());
    sender.send(kExample.substr(0, 61));
    std::signal(SIGUSR1, holdUp);
    const pthread_t reader = pthread_self();
    processAnd("serverIfProcessData 1: recved [61] bytes of data", [&] {
        pthread_kill(reader, SIGUSR1);
        sender.send("e");
    });
    EXPECT_FALSE(isQueued());
    EXPECT_TRUE(wasLogged(3, kGivenUp)) << recordedText();
}

TEST_F(HurriedPushListener, NextPushHasItsOwnTime) {
    const Peer silent(portNumber());
    process();
    const Peer sender(portNumber());
    sender.send(kExample);
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(encoded(push.get()), "aGVsbG8=");
}

TEST_F(PatientPushListener, TimeLimitOfZeroIsNone) {
    const Peer sender(portNumber());
    sender.send(kExample.substr(0, 62));
    processAnd("serverIfProcessData 1: recved [62] bytes of data", [&sender] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        sender.send("llo");
    });
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(encoded(push.get()), "aGVsbG8=");
}

TEST_F(PushListener, WantOfDescriptorsPausesAndLeavesTheConnectionWaiting) {
    const Peer sender(portNumber());
    sender.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    const Stopwatch watch;
    {
        const DescriptorShortage shortage;
        process();
    }
    EXPECT_LT(watch.seconds(), 0.05) << "somebody else had to wait for it";
    EXPECT_TRUE(isPushIntakePaused());
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "3 serverIfProcessData: Accept failed with errno[24] error[Too many open files]\n");
    EXPECT_FALSE(isQueued());
    ASSERT_TRUE(serveOnce(5)) << "the loop is not woken when the pause is over";
    EXPECT_GE(watch.seconds(), 0.1);
    EXPECT_FALSE(isPushIntakePaused());
    process();
    EXPECT_NE(takePush(), nullptr);
}

TEST_F(PushListener, OtherFailuresOfAcceptDoNotPause) {
    const Stopwatch watch;
    for (int i = 0; i < 50; ++i) {
        serverIfProcessData(&m_session->getPort());
    }
    EXPECT_LT(watch.seconds(), 4);
    EXPECT_EQ(countRecorded(3,
                            "serverIfProcessData: Accept failed with errno[11] error[Resource "
                            "temporarily unavailable]"),
              50);
}

TEST_F(PushListener, PortThatStoppedListeningIsNotAcceptedOn) {
    m_session->stopListenOnPort();
    clearRecordedLines();
    serverIfProcessData(&m_session->getPort());
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}), "");
}

TEST_F(PushListener, ListenerThatIsNoSocketIsLogged) {
    const int listener = m_session->getPort().getSocket();
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup3(file, listener, O_CLOEXEC);
    serverIfProcessData(&m_session->getPort());
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "3 serverIfProcessData: Accept failed with errno[88] error[Socket operation on "
              "non-socket]\n");
    close(file);
}

// Stopping runs on the other thread; the loop must never see a socket that is being shut down.
TEST_F(PushListener, StoppingNeverShowsAsAFailedAccept) {
    const int port = portNumber();
    for (int round = 0; round < 300; ++round) {
        std::thread stopping([this] { m_session->stopListenOnPort(); });
        for (int i = 0; i < 3; ++i) {
            serverIfProcessData(&m_session->getPort());
        }
        stopping.join();
        m_session->listenOn(port);
    }
    const std::string text = linesOf({"push_intake.cpp"});
    EXPECT_EQ(text.find("errno[9]"), std::string::npos) << text.substr(0, 500);
    EXPECT_EQ(text.find("errno[22]"), std::string::npos) << text.substr(0, 500);
}
