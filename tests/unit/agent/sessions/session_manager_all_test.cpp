// What the registry does with all its sessions at once: their ports, a change of the SIM, dead
// senders and the end of them all.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/messages/message_queue.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/requests/session_requests.hpp"
#include "tests/support/scarce_memory.hpp"
#include "tests/unit/agent/sessions/session_manager_fixture.hpp"

TEST_F(SessionManager, RemoveAllDestroysEverySession) {
    QuilSession& session = add("a", "@ipc.1", STATE_CREATE, freePort());
    session.listenOnPort();
    const int port = session.getPort().getPort();
    add("b", "@ipc.2", STATE_CREATE);
    m_manager.removeAll();
    EXPECT_FALSE(isListening(port));
    EXPECT_EQ(m_manager.getSessionByAppId("a"), nullptr);
    EXPECT_EQ(m_manager.getSessionByAppId("b"), nullptr);
}

TEST_F(SessionManager, SimChangeOfNoSessionIsNothing) {
    EXPECT_EQ(m_manager.processSimChange(quilDestroyChannel), 1);
    EXPECT_EQ(recordedText(), "6 processSimChange: session map is empty.\n");
}

TEST_F(SessionManager, SameSimIsNoSimChange) {
    changeSim("123", "123");
    add("app", "", STATE_TERMINATE, 4711);
    EXPECT_EQ(m_manager.processSimChange(quilDestroyChannel), 1);
    EXPECT_EQ(recordedText(),
              "6 m_imsi[123] current imsi [123]\n6 processSimChange: is same sim\n");
}

TEST_F(SessionManager, SimChangeDeregistersTheRegisteredOnesWithAPort) {
    changeSim("123", "456");
    add("b", "", STATE_SIM_CHANGE, 4711).setPpgUrl("http://ppg");
    add("a", "@ipc.1", STATE_REGISTER, 4712);
    add("c", "@ipc.2", STATE_CREATE, 4713);
    add("d", "@ipc.3", STATE_SIM_CHANGE);
    EXPECT_EQ(m_manager.processSimChange(quilDestroyChannel), 1);
    for (const char* line : {"processSimChange: app id [a] port[4712] socket[-1]",
                             "processSimChange: app id [b] port[4711] socket[-1]",
                             "processSimChange: app id [c] port[4713] socket[-1]",
                             "processSimChange: app id [d] port[-1] socket[-1]"}) {
        EXPECT_TRUE(wasLogged(6, line)) << line << " not in\n" << recordedText();
    }
    std::string requests;
    QuilMessageManager::getInstance()->push(std::make_unique<QuilMessageNode>(0, nullptr));
    for (;;) {
        const auto node = QuilMessageManager::getInstance()->pop();
        const auto* request = dynamic_cast<const QuilServerRegMessage*>(node->getMessage());
        if (request == nullptr) {
            break;
        }
        requests += number(node->getType()) + " app=" + request->getName() +
                    " id=" + request->getId() + " client=" + request->getClientId() +
                    " url=" + request->getPpgUrl() + "\n";
    }
    EXPECT_EQ(requests,
              "8 app=a id= client=@ipc.1 url=\n"
              "8 app=b id= client= url=http://ppg\n");
}

TEST_F(SessionManager, OutOfMemoryDuringSimChangeGives0) {
    changeSim("123", "456");
    add("app", longText('c'), STATE_SIM_CHANGE, 4711);
    const ScarceMemory memory(kLongTextBytes);
    EXPECT_EQ(m_manager.processSimChange(quilDestroyChannel), 0);
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_TRUE(wasLogged(3, "exception occurred when trying to get all ports.")) << recordedText();
}

TEST_F(SessionManager, AllPortsAreThoseOfRegisteredSessionsWithAPort) {
    for (int state = 0; state <= 6; ++state) {
        add("a" + number(state), "", state, 4000 + state);
        add("without" + number(state), "", state, 0);
    }
    EXPECT_EQ(ports(), "a3:4003 a5:4005 a6:4006 ");
    EXPECT_EQ(countRecorded(6, "app id [a0] port[4000] socket[-1]"), 1) << recordedText();
    EXPECT_EQ(countRecorded(6, "app id [without3] port[0] socket[-1]"), 1) << recordedText();
}

TEST_F(SessionManager, AllPortsAreTheSessionsOwnAndRebuiltEachTime) {
    QuilSession& session = add("app", "@ipc.1", STATE_REGISTER, 4711);
    ASSERT_EQ(m_manager.getAllPorts().size(), 1U);
    EXPECT_EQ(m_manager.getAllPorts().front(), &session.getPort());
    putIntoState(session, STATE_CREATE);
    EXPECT_EQ(m_manager.getAllPorts().size(), 0U);
}

TEST_F(SessionManager, OutOfMemoryWhileListingPortsIsLogged) {
    add("app", "@ipc.1", STATE_REGISTER, 4711);
    const ScarceMemory memory(sizeof(QuilPort*));
    EXPECT_EQ(ports(), "");
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_TRUE(wasLogged(3, "exception occurred when trying to get all ports.")) << recordedText();
}

// A loop that watched nothing would not come back by itself.
TEST_F(SessionManager, PortsWithoutMemoryForANewListAreTheOnesBefore) {
    add("a", "@ipc.1", STATE_REGISTER, 4711);
    ASSERT_EQ(m_manager.getAllPorts().size(), 1U);
    add("0", "@ipc.2", STATE_REGISTER, 4712);
    {
        // The new list begins with "0" and finds no room for "a".
        const ScarceMemory scarce(2 * sizeof(QuilPort*));
        const std::vector<QuilPort*> ports = m_manager.getAllPorts();
        ASSERT_TRUE(scarce.hasFailed());
        ASSERT_EQ(ports.size(), 1U);
        EXPECT_EQ(ports[0]->getName(), "a");
    }
    EXPECT_TRUE(wasLogged(3, "exception occurred when trying to get all ports."));
    EXPECT_EQ(m_manager.getAllPorts().size(), 2U);
}

TEST_F(SessionManager, DeadSendersOfAllSessionsAreLetGoAfterTheirTime) {
    m_platform.configure("push-timeout 1\n");
    const auto keepDead = [this](const std::string& appId) {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_TRUE(bindLoopback(listener));
        EXPECT_EQ(listen(listener, 1), 0);
        close(connectLoopback(boundPort(listener)));
        QuilSession& session = add(appId, "@ipc.1", STATE_REGISTER);
        EXPECT_EQ(session.addPushSocket("p", accept(listener, nullptr, nullptr)), 1);
        close(listener);
        return &session;
    };
    QuilSession* first = keepDead("a");
    QuilSession* second = keepDead("b");
    EXPECT_EQ(m_manager.letGoOfDeadPushSockets(), 0) << "they were given no time";
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(m_manager.letGoOfDeadPushSockets(), 2);
    EXPECT_EQ(first->getPushSocket("p"), nullptr);
    EXPECT_EQ(second->getPushSocket("p"), nullptr);
}
