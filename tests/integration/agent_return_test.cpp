// Those that die in the middle, and those that come back: each test takes one side away while
// something is under way, and looks at what the others are left with.

#include <set>

#include "tests/integration/device.hpp"

namespace {

// Long enough to do something meanwhile.
const std::vector<std::string> kSlow = {"--delay", "0.4", "--at-step", "2"};

class AgentReturn : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_NO_FATAL_FAILURE(startServer());
        ASSERT_TRUE(startAgent());
        m_client = connect();
    }

    void ask(const std::string& name, const std::string& id, const std::string& appId = kApp) {
        m_client->request(name, id, appId,
                          name == "createChannel" ? "\"ppgUrl\":\"" + ppgUrl() + "\"" : "");
    }

    // The application dies, and is back with a session.
    void reconnect() {
        m_client->close();
        m_client = connect();
        ask("createSession", "back");
        EXPECT_EQ(m_client->next().text, "@ipc\nmsg::onCreateSessionComplete\nid::back\n");
    }

    // Waits until the push server has the second request of an exchange.
    void waitForSecondStep(const std::string& operation, std::size_t from) {
        ASSERT_TRUE(waitUntil(
            [&] { return serverLog().find(operation + " step 2", from) != std::string::npos; }));
    }

    bool isSaved(const std::string& appId = kApp) const {
        return readObject("/pps/services/push/quilagent").find("\"" + appId + "\"") !=
               std::string::npos;
    }

    void expectPushIsServed(int port, const std::string& id) {
        const PushSender sender(port);
        ASSERT_TRUE(sender.send(makePush(id, "x")));
        EXPECT_EQ(m_client->next().id, id);
        ask("acceptPush", id);
        EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
    }

    std::unique_ptr<ClientConnection> m_client;
};

}  // namespace

// There is nothing to destroy yet, and the channel that was asked for comes.
TEST_F(AgentReturn, DestroyWhileTheChannelIsBeingMadeIsRefusedAndTheChannelStands) {
    createChannel(*m_client);
    startServer(kSlow);
    ask("destroyChannel", "d1");
    ask("createChannel", "c");
    ask("destroyChannel", "d2");
    EXPECT_EQ(m_client->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::d2\nerr:n:10106\n");
    EXPECT_EQ(m_client->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::d1\n");
    EXPECT_EQ(m_client->next().token, kPin);
    expectPushIsServed(portOf(kApp), "m");
    EXPECT_TRUE(waitUntil([&] { return isSaved(); }));
}

TEST_F(AgentReturn, ChannelIsThereForAnApplicationThatDiedWhileItWasMade) {
    startServer(kSlow);
    ask("createSession", "s");
    m_client->next();
    ask("createChannel", "c");
    ASSERT_NO_FATAL_FAILURE(waitForSecondStep("register", 0));
    m_client->close();
    ASSERT_TRUE(waitUntil([&] { return isSaved(); }));
    const int port = portOf(kApp);
    const PushSender early(port);
    ASSERT_TRUE(early.send(makePush("early", "x")));
    ASSERT_TRUE(waitForLog("adding push id[early]"));

    reconnect();
    EXPECT_TRUE(m_client->isSilent()) << "what went to the connection that is gone does not come";
    expectPushIsServed(port, "late");
    ask("rejectPush", "early");
    EXPECT_EQ(early.readToEnd(), "") << "its sender waited all the time";
}

TEST_F(AgentReturn, PushServerThatDiesBetweenTheStepsFailsBothWays) {
    startServer({"--delay", "60", "--at-step", "2"});
    ask("createSession", "s");
    m_client->next();
    ask("createChannel", "c");
    ASSERT_NO_FATAL_FAILURE(waitForSecondStep("register", 0));
    m_server->signal(SIGKILL);
    m_server->wait();
    EXPECT_EQ(m_client->next().text,
              "@ipc\nmsg::onCreateChannelComplete\nid::c\ndat:json:{\"token\":\"\"}\n");

    startServer();
    const int port = createChannel(*m_client);
    const std::size_t before = serverLog().size();
    startServer({"--delay", "60", "--at-step", "2"});
    ask("destroyChannel", "d");
    ASSERT_NO_FATAL_FAILURE(waitForSecondStep("deregister", before));
    m_server->signal(SIGKILL);
    m_server->wait();
    EXPECT_EQ(m_client->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::d\nerr:n:10108\n");
    expectPushIsServed(port, "m");
}

TEST_F(AgentReturn, AgentKilledInADeregistrationHasTheChannelAgainAndCanDestroyIt) {
    const int port = createChannel(*m_client);
    ASSERT_TRUE(waitUntil([&] { return isSaved(); }));
    const std::size_t before = serverLog().size();
    startServer({"--delay", "60", "--at-step", "2"});
    ask("destroyChannel", "d1");
    ASSERT_NO_FATAL_FAILURE(waitForSecondStep("deregister", before));
    killAgent();
    startServer();
    ASSERT_TRUE(startAgent());
    EXPECT_TRUE(isListening(port));

    reconnect();
    expectPushIsServed(port, "m");
    ask("destroyChannel", "d2");
    EXPECT_EQ(m_client->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::d2\n");
    EXPECT_FALSE(isListening(port));
    EXPECT_TRUE(waitUntil([&] { return !isSaved(); }));
    ask("destroyChannel", "d3");
    EXPECT_EQ(m_client->next().err, 10004);
}

// The first one goes on waiting although its sender has given up, so the id is not free.
TEST_F(AgentReturn, RetryUnderTheSameIdGetsTheAnswerOfASenderThatHungUp) {
    const int port = createChannel(*m_client);
    {
        const PushSender first(port);
        ASSERT_TRUE(first.send(makePush("m", "one")));
        EXPECT_EQ(m_client->next().data, "b25l");
    }
    const PushSender retry(port);
    ASSERT_TRUE(retry.send(makePush("m", "two")));
    EXPECT_EQ(m_client->next().data, "dHdv");
    ask("acceptPush", "m");
    EXPECT_TRUE(isAcknowledgement(retry.readToEnd()));
    expectPushIsServed(port, "m");
}

TEST_F(AgentReturn, UnansweredPushesOutliveTheirChannelAndTheirApplication) {
    const int port = createChannel(*m_client);
    const PushSender first(port);
    ASSERT_TRUE(first.send(makePush("first", "x")));
    EXPECT_EQ(m_client->next().id, "first");
    const PushSender second(port);
    ASSERT_TRUE(second.send(makePush("second", "x")));
    EXPECT_EQ(m_client->next().id, "second");

    reconnect();
    createChannel(*m_client);
    ask("acceptPush", "first");
    EXPECT_TRUE(isAcknowledgement(first.readToEnd()));
    ask("destroyChannel", "d");
    EXPECT_EQ(m_client->next().err, 0);
    ask("acceptPush", "second");
    EXPECT_TRUE(isAcknowledgement(second.readToEnd()));
}

TEST_F(AgentReturn, ApplicationThatDoesNotReadLosesPushesOfItsOwnOnly) {
    const int port = createChannel(*m_client);
    const auto other = connect();
    const int otherPort = createChannel(*other, "other");
    // Beyond the 1 MiB that waits for a connection.
    constexpr int kPushes = 100;
    const std::string data(11000, 'x');
    std::vector<std::unique_ptr<PushSender>> senders;
    for (int i = 0; i < kPushes; ++i) {
        const std::string id = "m" + std::to_string(i);
        senders.push_back(std::make_unique<PushSender>(port));
        ASSERT_TRUE(senders.back()->send(makePush(id, data)));
        if (i % 5 == 4) {  // no more than a port lets wait: else connecting takes seconds
            ASSERT_TRUE(waitForLog("adding push id[" + id + "]"));
        }
    }
    const PushSender sender(otherPort);
    ASSERT_TRUE(sender.send(makePush("o", "x")));
    EXPECT_EQ(other->next().id, "o");

    // It comes to itself: what waited is there, each once, and new ones come again.
    std::set<std::string> ids;
    for (Reply push = m_client->next(0.5); push.msg == "pushNotification";
         push = m_client->next(0.5)) {
        EXPECT_TRUE(ids.insert(push.id).second) << push.id;
    }
    EXPECT_GT(ids.size(), 60U);
    EXPECT_LT(ids.size(), 80U);
    EXPECT_EQ(senders.back()->readToEnd(0.1), "(still open)") << "who was lost goes on waiting";
    expectPushIsServed(port, "new");
}

TEST_F(AgentReturn, OnePortForTwoIsTheFirstOnesAndAfterARestartTheAlphabeticallyFirst) {
    const int shared = freePort();
    startServer({"--port-header", std::to_string(shared)});
    for (const char* appId : {"z", "a"}) {
        ask("createSession", "s", appId);
        EXPECT_EQ(m_client->next().id, "s");
        ask("createChannel", "c", appId);
        EXPECT_EQ(m_client->next().token, kPin) << appId;
    }
    EXPECT_TRUE(waitForLog("Failed to bind"));
    const auto acceptedBy = [&](const std::string& id, const std::string& appId) {
        const PushSender sender(shared);
        EXPECT_TRUE(sender.send(makePush(id, "x")));
        EXPECT_EQ(m_client->next().id, id);
        m_client->request("acceptPush", id, appId);
        return isAcknowledgement(sender.readToEnd(5));
    };
    EXPECT_TRUE(acceptedBy("m1", "z"));
    ASSERT_TRUE(waitUntil([&] { return isSaved("a") && isSaved("z"); }));
    killAgent();
    ASSERT_TRUE(startAgent());
    m_client = connect();
    for (const char* appId : {"z", "a"}) {
        ask("createSession", "s", appId);
        EXPECT_EQ(m_client->next().id, "s");
    }
    EXPECT_TRUE(acceptedBy("m2", "a"));
}
