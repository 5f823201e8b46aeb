// One connection to a session's port, read and queued, for each way in which a sender may behave.

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "tests/unit/agent/pushes/push_listener_fixture.hpp"

namespace {

constexpr const char* kHello = "aGVsbG8=";
constexpr std::size_t kHeaderBytes = 60;

std::string received(std::size_t count) {
    return "serverIfProcessData 1: recved [" + std::to_string(count) + "] bytes of data";
}

}  // namespace

TEST_F(PushListener, PushIsQueuedForItsApplicationAndClient) {
    const Peer sender(portNumber());
    sender.send(kExample);
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr) << recordedText();
    EXPECT_EQ(push->getName(), "app");
    EXPECT_EQ(push->getClientId(), "@ipc.1");
    EXPECT_EQ(push->getId(), " m1");
    EXPECT_EQ(push->getMessageType(), 5);
    EXPECT_EQ(push->getErrorCode(), 0);
    EXPECT_EQ(push->getPayloadLength(), 65);
    EXPECT_EQ(encoded(push.get()), kHello);
}

TEST_F(PushListener, SenderThatKeepsTheConnectionOpenHasItKept) {
    const Peer sender(portNumber());
    sender.send(kExample);
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    ASSERT_GT(push->getSocket(), 0);
    EXPECT_TRUE(sender.isOpen());
    EXPECT_EQ(serverIfSend(push->getSocket(), "ack", 3), 3);
    serverIfClose(push->getSocket());
    EXPECT_EQ(sender.readAll(), "ack");
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}).substr(0, 180),
              ("5 " + received(65) +
               "\n6 serverIfProcessData 1.1: recved [65] bytes of data\n"
               "6 serverIfProcessData 2: recved [-1] bytes of data\n"
               "6 serverIfClose: shutdown returned 0\n\n6 serverIfClose: close returned 0\n\n")
                  .substr(0, 180));
}

TEST_F(PushListener, KeptSocketIsHighCloseOnExecAndNonBlocking) {
    const Peer sender(portNumber());
    const int before = lowestFreeDescriptor();
    sender.send(kExample);
    process();
    EXPECT_EQ(lowestFreeDescriptor(), before) << "the low number was not given back";
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_GE(push->getSocket(), 256);
    EXPECT_EQ(fcntl(push->getSocket(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(push->getSocket(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
}

TEST_F(PushListener, SocketKeepsItsLowNumberWhereTheLimitAllowsNoHighOne) {
    const Peer sender(portNumber());
    sender.send(kExample);
    {
        const DescriptorShortage shortage(1);
        process();
    }
    const auto push = takePush();
    ASSERT_NE(push, nullptr) << recordedText();
    EXPECT_LT(push->getSocket(), 256);
    EXPECT_EQ(fcntl(push->getSocket(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(encoded(push.get()), kHello);
}

TEST_F(PushListener, SenderThatClosesBehindThePushHasItDeliveredAndClosed) {
    Peer sender(portNumber());
    sender.send(kExample);
    sender.close();
    const int before = lowestFreeDescriptor();
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getSocket(), -1);
    EXPECT_EQ(encoded(push.get()), kHello);
    EXPECT_EQ(fcntl(m_nextHigh, F_GETFD), -1);
    EXPECT_EQ(lowestFreeDescriptor(), before);
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "5 " + received(65) +
                  "\n6 serverIfProcessData 1.1: recved [65] bytes of "
                  "data\n"
                  "6 serverIfProcessData 2: recved [0] bytes of data\n"
                  "6 close new socket ret. [0]\n");
}

TEST_F(PushListener, HalfClosedSenderGetsNoAcknowledgement) {
    const Peer sender(portNumber());
    sender.send(kExample);
    sender.closeWriting();
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getSocket(), -1);
    EXPECT_EQ(encoded(push.get()), kHello);
    EXPECT_EQ(sender.readAll(), "");
}

TEST_F(PushListener, ConnectionWithoutAByteIsQueuedAsAnEmptyPushAndClosed) {
    Peer sender(portNumber());
    sender.close();
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr) << recordedText();
    EXPECT_EQ(push->getPayloadLength(), 0);
    EXPECT_EQ(push->getSocket(), -1);
    EXPECT_EQ(fcntl(m_nextHigh, F_GETFD), -1);
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "5 " + received(0) +
                  "\n6 serverIfProcessData 1.1: recved [0] bytes of "
                  "data\n6 close new socket ret. [0]\n");
    EXPECT_EQ(encoded(push.get()), "error 10109");
}

TEST_F(PushListener, HeaderBlockSplitAnywhereIsTakenAsItIsAfterOneRead) {
    for (std::size_t split = 1; split < kHeaderBytes; ++split) {
        const Peer sender(portNumber());
        sender.send(kExample.substr(0, split));
        process();
        sender.send(kExample.substr(split));
        const auto push = takePush();
        ASSERT_NE(push, nullptr) << "split at " << split;
        EXPECT_EQ(push->getPayloadLength(), static_cast<int>(split));
        EXPECT_EQ(push->getDataLength(), -1) << "split at " << split;
        EXPECT_NE(push->getSocket(), -1) << "split at " << split;
        EXPECT_EQ(encoded(push.get()), "error 10109") << "split at " << split;
    }
}

TEST_F(PushListener, FirstReadThatEndsWithTheHeaderBlockIsAPushWithoutData) {
    const Peer sender(portNumber());
    sender.send(kExample.substr(0, kHeaderBytes));
    process();
    sender.send("hello");
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getDataLength(), 0);
    EXPECT_NE(push->getSocket(), -1);
    EXPECT_EQ(encoded(push.get()), "");
}

TEST_F(PushListener, BodySplitAnywhereIsReadOnUntilItIsComplete) {
    for (std::size_t split = kHeaderBytes + 1; split < kExample.size(); ++split) {
        clearRecordedLines();
        const Peer sender(portNumber());
        sender.send(kExample.substr(0, split));
        processAnd(received(split), [&] { sender.send(kExample.substr(split)); });
        EXPECT_TRUE(wasLogged(5, received(kExample.size() - split))) << recordedText();
        ASSERT_TRUE(wasLogged(6, "QuilMessageManager::push: return_code = 1"));
        const auto node = QuilMessageManager::getInstance()->pop();
        auto* push = dynamic_cast<QuilPushMessage*>(node->getMessage());
        ASSERT_NE(push, nullptr) << "split at " << split;
        EXPECT_EQ(encoded(push), kHello) << "split at " << split;
        EXPECT_NE(push->getSocket(), -1) << "split at " << split;
        close(push->getSocket());
        clearRecordedLines();
    }
}

TEST_F(PushListener, BodyThatComesByteByByteIsReadOnUntilItIsComplete) {
    const Peer sender(portNumber());
    const std::string header = "POST /\r\nContent-Length: 200\r\n\r\n";
    sender.send(header + "x");
    processAnd(received(header.size() + 1), [&] {
        for (int i = 0; i < 199; ++i) {
            sender.send("x");
        }
    });
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getDataLength(), 200);
    EXPECT_EQ(encoded(push.get()).size(), 268U);
    EXPECT_NE(push->getSocket(), -1);
}

TEST_F(PushListener, CloseInTheMiddleOfTheBodyDeliversWhatCame) {
    Peer sender(portNumber());
    sender.send(kExample.substr(0, kHeaderBytes + 2));
    sender.close();
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getSocket(), -1);
    EXPECT_EQ(encoded(push.get()), "aGU=");
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "5 " + received(62) + "\n5 " + received(0) +
                  "\n6 serverIfProcessData 1.1: recved [0] bytes of "
                  "data\n6 close new socket ret. [0]\n");
}

TEST_F(PushListener, ResetInTheMiddleOfTheBodyDeliversWhatCameWithItsDeadConnection) {
    Peer sender(portNumber());
    sender.send(kExample.substr(0, kHeaderBytes + 2));
    processAnd(received(kHeaderBytes + 2), [&] { sender.reset(); });
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_NE(push->getSocket(), -1);
    EXPECT_EQ(serverIfSend(push->getSocket(), "x", 1), -1);
    EXPECT_EQ(encoded(push.get()), "aGU=");
    EXPECT_TRUE(wasLogged(6, "serverIfProcessData 1.1: recved [-1] bytes of data"));
    EXPECT_FALSE(wasLogged(6, "serverIfProcessData 2: recved [-1] bytes of data"));
}

TEST_F(PushListener, ResetBeforeAnyByteIsDroppedWithItsLine) {
    Peer sender(portNumber());
    sender.reset();
    process();
    EXPECT_FALSE(isQueued());
    EXPECT_EQ(fcntl(m_nextHigh, F_GETFD), -1);
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "5 serverIfProcessData 1: recved [-1] bytes of data\n"
              "3 serverIfProcessData: Cound not read incoming data with error no=104 "
              "error='Connection reset by peer'\n\n");
}

TEST_F(PushListener, PushWithoutContentLengthIsReadWithOneRead) {
    const Peer sender(portNumber());
    sender.send("POST /\r\nA: b\r\n\r\nhel");
    process();
    sender.send("lo");
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(encoded(push.get()), "aGVs");
    EXPECT_NE(push->getSocket(), -1);
    EXPECT_EQ(countRecorded(5, received(19)), 1);
}

TEST_F(PushListener, PushThatComesLateIsWaitedFor) {
    const Peer sender(portNumber());
    std::thread later([&sender] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        sender.send(kExample);
    });
    process();
    later.join();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(encoded(push.get()), kHello);
}

TEST_F(PushListener, BytesBehindThePushInTheSameReadBelongToItsData) {
    const Peer sender(portNumber());
    sender.send(kExample + "XY");
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getDataLength(), 7);
    EXPECT_NE(push->getSocket(), -1);
}

TEST_F(PushListener, EachConnectionIsAPushOfItsOwnInOrder) {
    const Peer first(portNumber());
    first.send("POST /\r\nPush-Message-ID:1\r\n\r\na");
    const Peer second(portNumber());
    second.send("POST /\r\nPush-Message-ID:2\r\n\r\nb");
    process();
    process();
    const auto one = takePush();
    const auto two = takePush();
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(one->getId(), "1");
    EXPECT_EQ(two->getId(), "2");
    EXPECT_NE(one->getSocket(), two->getSocket());
}

TEST_F(PushListener, NoPortIsLogged) {
    serverIfProcessData(nullptr);
    EXPECT_EQ(recordedText(), "3 serverIfProcessData: Quil Port is NULL\n\n");
}

TEST_F(PushListener, PortWithoutApplicationAcceptsNothing) {
    QuilPort port;
    port.setPort(4401);
    port.setSocket(listener());
    const Peer sender(portNumber());
    serverIfProcessData(&port);
    EXPECT_EQ(recordedText(), "3 serverIfProcessData: AppID not found for port 4401\n");
    EXPECT_TRUE(hasWaitingConnection(10));
}

TEST_F(PushListener, PortOfAnUnknownApplicationAcceptsNothing) {
    QuilPort port;
    port.setName("stranger");
    port.setSocket(listener());
    const Peer sender(portNumber());
    serverIfProcessData(&port);
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "3 serverIfProcessData: session not found for app id [stranger]\n");
    EXPECT_TRUE(hasWaitingConnection(10));
    EXPECT_FALSE(port.isWaitingForClient());
}

TEST_F(PushListener, WithoutAClientNothingIsAcceptedAndThePortIsMarkedAsWaiting) {
    m_session->setClientObjectId("");
    const Peer sender(portNumber());
    sender.send(kExample);
    EXPECT_FALSE(m_session->getPort().isWaitingForClient());
    process();
    EXPECT_EQ(linesOf({"push_intake.cpp", "push_connection.cpp", "connection.cpp"}),
              "3 serverIfProcessData: getClientObjectId is empty\n");
    EXPECT_TRUE(m_session->getPort().isWaitingForClient());
    EXPECT_TRUE(hasWaitingConnection(10));
    EXPECT_TRUE(sender.isOpen());
    EXPECT_FALSE(isQueued());
}

TEST_F(PushListener, PushThatWaitedForItsClientIsDeliveredToIt) {
    m_session->setClientObjectId("");
    const Peer sender(portNumber());
    sender.send(kExample);
    process();
    m_session->setClientObjectId("@ipc.2");
    EXPECT_FALSE(m_session->getPort().isWaitingForClient());
    process();
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getClientId(), "@ipc.2");
    EXPECT_EQ(encoded(push.get()), kHello);
}

TEST_F(PushListener, PushForASessionWithAClientMarksNothing) {
    const Peer sender(portNumber());
    sender.send(kExample);
    process();
    EXPECT_FALSE(m_session->getPort().isWaitingForClient());
}
