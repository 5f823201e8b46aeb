// Connections whose push is not in yet: nobody waits for them, they go on by themselves, and they
// are bounded.

#include <memory>
#include <string>
#include <vector>

#include "agent/connections/owned_socket.hpp"
#include "tests/support/file_limit.hpp"
#include "tests/unit/agent/pushes/push_listener_fixture.hpp"

namespace {

constexpr const char* kGivenUp = "setAside: push for app id [app] given up: of ";

class SetAside : public PushListener {
  protected:
    // Accepts what waits on the port, as one pass of the loop does.
    void accept() {
        ASSERT_TRUE(hasWaitingConnection(10)) << "nobody connected";
        serverIfProcessData(&m_session->getPort());
    }
    std::unique_ptr<Peer> connect() {
        auto peer = std::make_unique<Peer>(portNumber());
        accept();
        return peer;
    }
    static int countGivenUp() {
        int count = 0;
        const std::string text = recordedText();
        for (std::size_t at = text.find(kGivenUp); at != std::string::npos;
             at = text.find(kGivenUp, at + 1)) {
            ++count;
        }
        return count;
    }
};

class HurriedSetAside : public PushListener {
  protected:
    HurriedSetAside() : PushListener("push-timeout 1\n") {}
};

}  // namespace

TEST_F(SetAside, SilentSenderHoldsUpNoPushBehindIt) {
    const auto silent = connect();
    EXPECT_EQ(countSetAsideConnections(), 1);
    const Peer sender(portNumber());
    sender.send(kExample);
    const Stopwatch watch;
    accept();
    EXPECT_LT(watch.seconds(), 0.5);
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(encoded(push.get()), "aGVsbG8=");
    EXPECT_TRUE(silent->isOpen());
}

TEST_F(SetAside, PushThatIsThereWhenItIsAcceptedGoesStraightThrough) {
    const Peer sender(portNumber());
    sender.send(kExample);
    accept();
    EXPECT_EQ(countSetAsideConnections(), 0);
    EXPECT_NE(takePush(), nullptr);
}

TEST_F(SetAside, EachGoesOnWhenItsOwnBytesCome) {
    const auto first = connect();
    const auto second = connect();
    second->send(kExample);
    ASSERT_TRUE(serveOnce(10));
    EXPECT_NE(takePush(), nullptr);
    EXPECT_EQ(countSetAsideConnections(), 1);
    first->send(kExample.substr(0, 62));
    ASSERT_TRUE(serveOnce(10));
    EXPECT_EQ(takePush(), nullptr);
    first->send(kExample.substr(62));
    ASSERT_TRUE(serveOnce(10));
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(encoded(push.get()), "aGVsbG8=");
    EXPECT_EQ(countSetAsideConnections(), 0);
}

TEST_F(SetAside, PushGoesToTheClientThatTheApplicationHasWhenItIsIn) {
    const auto sender = connect();
    sender->send(kExample.substr(0, 62));
    ASSERT_TRUE(serveOnce(10));
    m_session->setClientObjectId("@ipc.2");
    sender->send(kExample.substr(62));
    ASSERT_TRUE(serveOnce(10));
    const auto push = takePush();
    ASSERT_NE(push, nullptr);
    EXPECT_EQ(push->getClientId(), "@ipc.2");
}

TEST_F(SetAside, NothingWakesTheLoopWhenNothingIsSetAside) {
    EXPECT_FALSE(serveOnce(0.05));
    auto sender = connect();
    EXPECT_FALSE(serveOnce(0.05));
    sender->send(kExample);
    ASSERT_TRUE(serveOnce(10));
    EXPECT_NE(takePush(), nullptr);
    EXPECT_FALSE(serveOnce(0.05));
}

TEST_F(HurriedSetAside, NoTimerIsLeftOverFromAPushThatCameIn) {
    const Peer sender(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    sender.send(kExample);
    ASSERT_TRUE(serveOnce(10));
    EXPECT_NE(takePush(), nullptr);
    EXPECT_FALSE(serveOnce(1.3));
}

TEST_F(HurriedSetAside, EachHasItsOwnTime) {
    const Peer first(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    const Peer second(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    const Stopwatch watch;
    ASSERT_TRUE(serveOnce(10));
    EXPECT_FALSE(first.isOpen());
    EXPECT_TRUE(second.isOpen());
    ASSERT_TRUE(serveOnce(10));
    EXPECT_FALSE(second.isOpen());
    EXPECT_GE(watch.seconds(), 0.9);
}

TEST_F(SetAside, BeyondTheBoundOfAPortTheLongestSilentIsClosed) {
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 64; ++i) {
        peers.push_back(connect());
    }
    EXPECT_EQ(countGivenUp(), 0);
    // The first one speaks, so the second has been silent longest.
    peers[0]->send(kExample.substr(0, 62));
    ASSERT_TRUE(serveOnce(10));
    peers.push_back(connect());
    EXPECT_EQ(countSetAsideConnections(), 64);
    EXPECT_TRUE(peers[0]->isOpen());
    EXPECT_FALSE(peers[1]->isOpen());
    EXPECT_TRUE(peers[2]->isOpen());
    EXPECT_TRUE(wasLogged(3, std::string(kGivenUp) + "64 that wait it has been silent longest"))
        << recordedText();
}

TEST_F(SetAside, OnePortsCrowdTakesNothingFromAnother) {
    const ReservedPort reserved;
    QuilSession* other = addSession("other", "@ipc.2");
    other->getPort().setPort(reserved.number());
    other->listenOnPort();
    const Peer innocent(reserved.number());
    waitUntil([other] {
        pollfd watched = {other->getPort().getSocket(), POLLIN, 0};
        return poll(&watched, 1, 0) == 1;
    });
    serverIfProcessData(&other->getPort());
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 70; ++i) {
        peers.push_back(connect());
    }
    EXPECT_EQ(countSetAsideConnections(), 65);
    EXPECT_EQ(countGivenUp(), 6);
    EXPECT_TRUE(innocent.isOpen());
    innocent.send(kExample);
    ASSERT_TRUE(serveOnce(10));
    EXPECT_NE(takePush(), nullptr);
}

TEST_F(SetAside, AllOfThemTakeAnEighthOfTheDescriptorsAtMost) {
    std::vector<std::unique_ptr<Peer>> peers;
    const FileLimit limit(400);
    const ReservedPort reserved;
    QuilSession* other = addSession("other", "@ipc.2");
    other->getPort().setPort(reserved.number());
    other->listenOnPort();
    for (int i = 0; i < 30; ++i) {
        peers.push_back(connect());
        peers.push_back(std::make_unique<Peer>(reserved.number()));
        waitUntil([other] {
            pollfd watched = {other->getPort().getSocket(), POLLIN, 0};
            return poll(&watched, 1, 0) == 1;
        });
        serverIfProcessData(&other->getPort());
    }
    EXPECT_EQ(countSetAsideConnections(), 50);
    EXPECT_FALSE(peers[0]->isOpen());
    EXPECT_TRUE(peers[59]->isOpen());
}

TEST_F(HurriedSetAside, WantOfDescriptorsTakesTheConnectionsOfDeadSendersAlone) {
    const FileLimit limit(400);
    {
        Peer vanished(portNumber());
        vanished.send(kExample);
        ASSERT_TRUE(hasWaitingConnection(10));
        serverIfProcessData(&m_session->getPort());
        const auto push = QuilMessageManager::getInstance()->pop();
        auto& message = dynamic_cast<QuilPushMessage&>(*push->getMessage());
        ASSERT_EQ(m_session->addPushSocket("vanished", message.getSocket()), 1);
    }
    Peer patient(portNumber());
    patient.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    const auto push = QuilMessageManager::getInstance()->pop();
    auto& message = dynamic_cast<QuilPushMessage&>(*push->getMessage());
    ASSERT_EQ(m_session->addPushSocket("patient", message.getSocket()), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const Peer silent(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    const Peer sender(portNumber());
    sender.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    const auto allOthers = takeDescriptors();
    clearRecordedLines();
    serverIfProcessData(&m_session->getPort());
    EXPECT_TRUE(wasLogged(6, "QuilMessageManager::push: return_code = 1")) << recordedText();
    EXPECT_EQ(m_session->getPushSocket("vanished"), nullptr);
    EXPECT_NE(m_session->getPushSocket("patient"), nullptr);
    EXPECT_EQ(countSetAsideConnections(), 1);
}

TEST_F(HurriedSetAside, TimeInWhichNobodyCouldSeeToItDoesNotCount) {
    const Peer sender(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    sender.send(kExample);
    postponePushIntake(std::chrono::milliseconds(1100));
    ASSERT_TRUE(serveOnce(5));
    EXPECT_NE(takePush(), nullptr);
}

// The first one was there when nobody could see to it, and has more time than those after it.
TEST_F(HurriedSetAside, MoreTimeForOneKeepsNoLaterOneOpen) {
    const Peer first(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    postponePushIntake(std::chrono::seconds(60));
    const Peer second(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    const Stopwatch watch;
    ASSERT_TRUE(serveOnce(5)) << "the second one's time is not watched";
    EXPECT_GE(watch.seconds(), 0.9);
    EXPECT_FALSE(second.isOpen());
    EXPECT_TRUE(first.isOpen());
    EXPECT_FALSE(serveOnce(0.3));
    first.send(kExample);
    ASSERT_TRUE(serveOnce(5));
    EXPECT_NE(takePush(), nullptr);
    EXPECT_EQ(countSetAsideConnections(), 0);
}
