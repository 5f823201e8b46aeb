// Too few descriptors: nobody who waits is hung up on for others, and what is not a push still has
// some.

#include <memory>
#include <string>
#include <vector>

#include "tests/support/file_limit.hpp"
#include "tests/unit/agent/pushes/push_listener_fixture.hpp"

namespace {

constexpr const char* kNoRoom =
    "serverIfProcessData: Accept failed with errno[24] error[Too many open files]";

class PushShortage : public PushListener {
  protected:
    using PushListener::PushListener;

    void accept() {
        ASSERT_TRUE(hasWaitingConnection(10)) << "nobody connected";
        serverIfProcessData(&m_session->getPort());
    }
    // A sender whose push is kept under that id for its answer.
    std::unique_ptr<Peer> keep(const std::string& id) {
        auto sender = std::make_unique<Peer>(portNumber());
        sender->send(kExample);
        accept();
        EXPECT_EQ(m_session->addPushSocket(id, takeConnection()), 1);
        return sender;
    }
    std::unique_ptr<Peer> setAside() {
        auto sender = std::make_unique<Peer>(portNumber());
        accept();
        EXPECT_EQ(countSetAsideConnections(), 1);
        return sender;
    }
    // As the loop does it before each wait, for so long; whether the ports were watched again.
    bool isResumed(double seconds) {
        return waitUntil(
            [this] {
                serveOnce(0.01);
                return !isPushIntakePaused();
            },
            seconds);
    }
};

class ChosenSenders : public PushShortage {
  protected:
    ChosenSenders() : PushShortage("push-timeout 20\nallowed-senders 192.0.2.1\n") {}
};

}  // namespace

TEST_F(PushShortage, LivingSendersAreNotClosedAndTheNextOneWaits) {
    const FileLimit limit(400);
    const auto patient = keep("patient");
    const auto silent = setAside();
    const Peer next(portNumber());
    next.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    const auto others = takeDescriptors();
    clearRecordedLines();
    serverIfProcessData(&m_session->getPort());
    EXPECT_EQ(countRecorded(3, kNoRoom), 1) << recordedText();
    EXPECT_TRUE(isPushIntakePaused());
    EXPECT_TRUE(patient->isOpen());
    EXPECT_TRUE(silent->isOpen());
    EXPECT_TRUE(next.isOpen());
    EXPECT_NE(m_session->getPushSocket("patient"), nullptr);
    EXPECT_EQ(countSetAsideConnections(), 1);
}

TEST_F(PushShortage, ShortageThatLastsIsToldOnceAndEndsByItself) {
    const FileLimit limit(400);
    const auto patient = keep("patient");
    const Peer next(portNumber());
    next.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    const auto others = takeDescriptors();
    serverIfProcessData(&m_session->getPort());
    clearRecordedLines();
    EXPECT_FALSE(isResumed(0.5));
    EXPECT_EQ(recordedText(), "") << "a line for every try";
    m_session->acknowledgePush("patient", true);
    EXPECT_EQ(patient->readAll().size(), 72U);
    ASSERT_TRUE(isResumed(1));
    accept();
    EXPECT_TRUE(wasLogged(6, "QuilMessageManager::push: return_code = 1")) << recordedText();
}

// The pause goes on when the loop asks after its end, but before it was told of that.
TEST_F(PushShortage, PauseThatGoesOnWakesTheLoopAgain) {
    const FileLimit limit(400);
    const Peer next(portNumber());
    next.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    const auto others = takeDescriptors();
    serverIfProcessData(&m_session->getPort());
    std::this_thread::sleep_for(std::chrono::milliseconds(110));
    EXPECT_TRUE(isPushIntakePaused());
    EXPECT_TRUE(serveOnce(1));
    EXPECT_TRUE(isPushIntakePaused());
    EXPECT_TRUE(serveOnce(1)) << "nothing wakes the loop any more";
}

// Of few descriptors, pushes leave the lowest quarter alone.
TEST_F(PushShortage, FewDescriptorsLeaveAQuarterForWhatIsNoPush) {
    const FileLimit limit(400);
    const auto patient = keep("patient");
    const auto pushes = takeDescriptors(100);
    const Peer next(portNumber());
    next.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    EXPECT_TRUE(wasLogged(3, kNoRoom)) << recordedText();
    EXPECT_TRUE(patient->isOpen());
    EXPECT_GE(takeDescriptors().size(), 32U);
}

// Of many, the highest few, as the low ones may all be taken by listening sockets.
TEST_F(PushShortage, ManyDescriptorsLeaveTheHighestForWhatIsNoPush) {
    const FileLimit limit(2000);
    const auto patient = keep("patient");
    const auto pushes = takeDescriptors(256, 2000 - 62);
    // So many at once come as a surprise to the first push behind them, which keeps its own number.
    const Peer surprised(portNumber());
    surprised.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    const Peer next(portNumber());
    next.send(kExample);
    ASSERT_TRUE(hasWaitingConnection(10));
    serverIfProcessData(&m_session->getPort());
    EXPECT_TRUE(wasLogged(3, kNoRoom)) << recordedText();
    EXPECT_TRUE(patient->isOpen());
    EXPECT_GE(takeDescriptors(256).size(), 62U);
}

TEST_F(PushShortage, PushesHaveTheNumbersUpToTheHighestFew) {
    const FileLimit limit(2000);
    const auto pushes = takeDescriptors(256, 2000 - 64);
    const auto last = keep("last");
    EXPECT_GE(m_session->getPushSocket("last")->getSocket(), 2000 - 64);
    EXPECT_LT(m_session->getPushSocket("last")->getSocket(), 2000 - 62);
}

TEST_F(PushShortage, FewDescriptorsArePlacedAboveTheLowestQuarter) {
    const FileLimit limit(200);
    const auto first = keep("first");
    EXPECT_GE(m_session->getPushSocket("first")->getSocket(), 50);
}

// Whoever may not push takes nothing from those who may.
TEST_F(ChosenSenders, RefusedSenderCostsNobodyADescriptor) {
    const FileLimit limit(400);
    Peer patient(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    ASSERT_EQ(m_session->addPushSocket("patient", m_session->acceptOnPort()), 1);
    const Peer stranger(portNumber());
    ASSERT_TRUE(hasWaitingConnection(10));
    const auto others = takeDescriptors();
    serverIfProcessData(&m_session->getPort());
    EXPECT_TRUE(patient.isOpen());
    EXPECT_NE(m_session->getPushSocket("patient"), nullptr);
}

TEST_F(ChosenSenders, RefusedSenderIsClosedRightAfterAccept) {
    const Peer stranger(portNumber());
    accept();
    EXPECT_TRUE(stranger.seesClose());
    EXPECT_EQ(countSetAsideConnections(), 0);
    EXPECT_EQ(fcntl(m_nextHigh, F_GETFD), -1);
}
