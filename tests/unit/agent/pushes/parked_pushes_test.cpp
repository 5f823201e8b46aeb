// Pushes that wait for their application: their order, their bounds, and what becomes of those
// whose sender has gone.

#include "agent/pushes/parked_pushes.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/messages/push_message.hpp"
#include "agent/pushes/dead_senders.hpp"
#include "agent/sessions/session_manager.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/file_limit.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

class Parking : public SessionsTest {
  protected:
    static std::unique_ptr<QuilMessageNode> makeNode(const std::string& appId,
                                                     const std::string& id, int socket = -1) {
        auto push = std::make_unique<QuilPushMessage>(appId, "@ipc.1");
        push->setId(id);
        push->setSocket(socket);
        return std::make_unique<QuilMessageNode>(MESSAGE_PUSH, std::move(push));
    }
    static std::string idOf(const ParkedPushes::Parked& parked) {
        return parked.node == nullptr ? "" : parked.node->getMessage()->getId();
    }
    // Takes all of an application's out.
    static std::string takeAll(const std::string& appId) {
        std::string all;
        for (auto next = parked().takeFirst(appId); next.node != nullptr;
             next = parked().takeFirst(appId)) {
            all += idOf(next) + " ";
        }
        return all;
    }
    static ParkedPushes& parked() { return *ParkedPushes::getInstance(); }
};

// Senders that hang up are given a second.
class ParkingOfTheDead : public Parking {
  protected:
    ParkingOfTheDead() { m_platform.configure("push-timeout 1\n"); }

    // A TCP connection; gives the sender's end.
    static int connectTcp(int* accepted) {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_TRUE(bindLoopback(listener));
        EXPECT_EQ(listen(listener, 1), 0);
        const int sender = connectLoopback(boundPort(listener));
        *accepted = accept(listener, nullptr, nullptr);
        close(listener);
        return sender;
    }
    static void waitForTheirTime() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }
};

}  // namespace

TEST_F(Parking, EachApplicationHasItsOwnInTheirOrder) {
    parked().park(makeNode("a", "1"));
    parked().park(makeNode("b", "2"));
    parked().park(makeNode("a", "3"));
    EXPECT_TRUE(parked().hasAny("a"));
    EXPECT_FALSE(parked().hasAny("c"));
    EXPECT_EQ(takeAll("a"), "1 3 ");
    EXPECT_FALSE(parked().hasAny("a"));
    EXPECT_EQ(takeAll("b"), "2 ");
}

TEST_F(Parking, WhatIsPutBackIsTheFirstAgain) {
    parked().park(makeNode("a", "1"));
    parked().park(makeNode("a", "2"));
    parked().putBack(parked().takeFirst("a"));
    EXPECT_EQ(takeAll("a"), "1 2 ");
    parked().park(makeNode("a", "1"));
    parked().putBack(parked().takeFirst("a"));
    EXPECT_EQ(takeAll("a"), "1 ");
}

TEST_F(Parking, BeyondTheBoundOfAnApplicationItsOldestIsClosed) {
    const FileLimit limit(16384);
    Connected connection;
    parked().park(makeNode("other", "o"));
    parked().park(makeNode("a", "0", connection.here));
    connection.here = -1;
    for (int i = 1; i < 256; ++i) {
        parked().park(makeNode("a", std::to_string(i)));
    }
    EXPECT_FALSE(connection.isClosedWithoutAByte());
    parked().park(makeNode("a", "256"));
    EXPECT_TRUE(connection.isClosedWithoutAByte());
    EXPECT_TRUE(wasLogged(3,
                          "parked: push id[0] for app id[a] given up: of 256 that wait for their "
                          "application it is the oldest"))
        << recordedText();
    EXPECT_EQ(takeAll("a").substr(0, 4), "1 2 ");
    EXPECT_EQ(takeAll("other"), "o ");
}

TEST_F(Parking, BeyondTheBoundOfAllTheOldestOfAllIsClosed) {
    const FileLimit limit(16384);
    const auto appId = [](int i) { return "app" + std::to_string(i % 10); };
    for (int i = 0; i < 1024; ++i) {
        parked().park(makeNode(appId(i), std::to_string(i)));
    }
    EXPECT_EQ(recordedText().find("given up"), std::string::npos);
    // What was put back is as old as it was.
    parked().putBack(parked().takeFirst("app3"));
    parked().park(makeNode("new", "n0"));
    parked().park(makeNode("new", "n1"));
    parked().park(makeNode("new", "n2"));
    parked().park(makeNode("new", "n3"));
    EXPECT_TRUE(wasLogged(3,
                          "parked: push id[3] for app id[app3] given up: of 1024 that wait for "
                          "their application it is the oldest"))
        << recordedText();
    EXPECT_EQ(takeAll("app3").substr(0, 3), "13 ");
    EXPECT_EQ(takeAll("app4").substr(0, 2), "4 ");
    EXPECT_EQ(takeAll("new"), "n0 n1 n2 n3 ");
}

TEST_F(Parking, FewDescriptorsAreFewParkedPushes) {
    const FileLimit limit(160);
    for (int i = 0; i < 6; ++i) {
        parked().park(makeNode("a", std::to_string(i)));
    }
    EXPECT_EQ(takeAll("a"), "1 2 3 4 5 ");
    for (int i = 0; i < 11; ++i) {
        parked().park(makeNode("app" + std::to_string(i), std::to_string(i)));
    }
    EXPECT_FALSE(parked().hasAny("app0"));
    EXPECT_TRUE(parked().hasAny("app1"));
    EXPECT_TRUE(parked().hasAny("app10"));
}

TEST_F(ParkingOfTheDead, PushWhoseSenderHungUpIsLetGoAfterItsTimeAndTheOthersStay) {
    int dead = -1;
    int alive = -1;
    close(connectTcp(&dead));
    const int sender = connectTcp(&alive);
    parked().park(makeNode("a", "none"));  // its sender never waited
    parked().park(makeNode("a", "dead", dead));
    parked().park(makeNode("a", "alive", alive));
    parked().park(makeNode("b", "b"));
    EXPECT_EQ(parked().letGoOfDead(), 0) << "it was given no time";
    waitForTheirTime();
    EXPECT_EQ(parked().letGoOfDead(), 1);
    EXPECT_FALSE(isOpen(dead));
    EXPECT_TRUE(wasLogged(6, "parked: sender of push id[dead] hung up, let go")) << recordedText();
    EXPECT_EQ(takeAll("a"), "none alive ");
    EXPECT_EQ(takeAll("b"), "b ");
    close(alive);
    close(sender);
}

TEST_F(ParkingOfTheDead, ApplicationWhosePushesAreAllDeadHasNoneAnyMore) {
    int dead = -1;
    close(connectTcp(&dead));
    parked().park(makeNode("a", "dead", dead));
    waitForTheirTime();
    EXPECT_EQ(parked().letGoOfDead(), 1);
    EXPECT_FALSE(parked().hasAny("a"));
    EXPECT_EQ(takeAll("a"), "");
}

// Any push that comes is the occasion, whoever it is for; a second has to pass between two looks.
TEST_F(ParkingOfTheDead, DeadSendersAreLookedForOnceASecond) {
    auto added = std::make_unique<QuilSession>("kept", "@ipc.1");
    QuilSessionManager::getInstance()->addSession(added);
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId("kept");
    const auto leaveTwo = [&] {
        int kept = -1;
        int waiting = -1;
        close(connectTcp(&kept));
        close(connectTcp(&waiting));
        EXPECT_EQ(session->addPushSocket("p", kept), 1);
        parked().park(makeNode("a", "p", waiting));
    };
    leaveTwo();
    lookForDeadSenders();
    EXPECT_NE(session->getPushSocket("p"), nullptr) << "it was given no time";
    waitForTheirTime();
    lookForDeadSenders();
    EXPECT_EQ(session->getPushSocket("p"), nullptr);
    EXPECT_FALSE(parked().hasAny("a"));
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    leaveTwo();
    waitForTheirTime();
    lookForDeadSenders();
    EXPECT_EQ(session->getPushSocket("p"), nullptr);
    leaveTwo();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    lookForDeadSenders();
    EXPECT_NE(session->getPushSocket("p"), nullptr);
    EXPECT_TRUE(parked().hasAny("a"));
}
