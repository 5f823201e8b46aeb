// Many of everything: sessions, ports, pushes that wait.

#include <sys/resource.h>

#include "tests/integration/device.hpp"

namespace {

class AgentLoad : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        startServer();
        ASSERT_TRUE(startAgent({}));
        m_client = connect();
    }

    std::unique_ptr<ClientConnection> m_client;
};

}  // namespace

TEST_F(AgentLoad, TwoHundredFortySessionsAndPortsAreServed) {
    constexpr int kSessions = 240;
    std::vector<int> ports;
    for (int i = 0; i < kSessions; ++i) {
        ports.push_back(createChannel(*m_client, "app" + std::to_string(i)));
        ASSERT_FALSE(HasFailure()) << i;
    }
    for (int i = 0; i < kSessions; i += 13) {
        const PushSender sender(ports[static_cast<std::size_t>(i)]);
        const std::string id = "m" + std::to_string(i);
        sender.send(makePush(id, "x"));
        EXPECT_EQ(m_client->next().id, id);
        m_client->request("acceptPush", id, "app" + std::to_string(i));
        EXPECT_TRUE(isAcknowledgement(sender.readToEnd())) << i;
    }
    const PushSender last(ports.back());
    last.send(makePush("last", "x"));
    EXPECT_EQ(m_client->next().id, "last");
    EXPECT_TRUE(waitForLog("exceed the 15359 that can be loaded"));
}

TEST_F(AgentLoad, ThreeHundredPushesWaitWhileChannelsAreStillCreatedAndServed) {
    constexpr int kWaiting = 300;
    const int port = createChannel(*m_client);
    std::vector<std::unique_ptr<PushSender>> senders;
    for (int i = 0; i < kWaiting; ++i) {
        senders.push_back(std::make_unique<PushSender>(port));
        const std::string id = "w" + std::to_string(i);
        ASSERT_TRUE(senders.back()->send(makePush(id, "x")));
        ASSERT_EQ(m_client->next().id, id);
    }
    const PushSender other(createChannel(*m_client, "other"));
    other.send(makePush("o", "x"));
    EXPECT_EQ(m_client->next().id, "o");
    for (int i = 0; i < kWaiting; i += 7) {
        const std::string id = "w" + std::to_string(i);
        m_client->request(i % 2 == 0 ? "acceptPush" : "rejectPush", id, kApp);
        const std::string answer = senders[static_cast<std::size_t>(i)]->readToEnd();
        EXPECT_TRUE(i % 2 == 0 ? isAcknowledgement(answer) : answer.empty()) << i;
    }
}

// Its push server hangs: what it asks waits behind that, and nobody else does.
TEST_F(AgentLoad, FifteenHundredRequestsBehindAHangingServerAreAllAnswered) {
    constexpr int kRequests = 1500;
    startServer({"--delay", "3", "--at-step", "2"});
    m_client->request("createSession", "s", kApp);
    EXPECT_EQ(m_client->next().id, "s");
    m_client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    for (int i = 0; i < kRequests; ++i) {
        m_client->request("registerToLaunch", std::to_string(i), kApp, "\"launchString\":\"x\"");
    }
    const auto other = connect();
    other->request("createSession", "o", "other");
    EXPECT_EQ(other->next(2).id, "o");
    // The end of the exchange stands behind what had been asked for by then: all of it, unless this
    // machine takes longer than the server to ask.
    bool isEndThere = false;
    for (int answered = 0; answered < kRequests || !isEndThere;) {
        const std::string id = m_client->next().id;
        if (id == "c" && !isEndThere) {
            isEndThere = true;
        } else {
            ASSERT_EQ(id, std::to_string(answered++));
        }
    }
}
