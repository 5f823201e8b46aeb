// What outlives the agent: its sessions, and a push that waits for its application.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/integration/device.hpp"

namespace {

class AgentRestart : public Device {
  protected:
    // An agent with one channel, killed.
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        startServer();
        ASSERT_TRUE(startAgent());
        m_client = connect();
        m_port = createChannel(*m_client);
        ASSERT_TRUE(waitForLog("Save to persistent memory returns 1"));
        killAgent();
    }

    std::unique_ptr<ClientConnection> m_client;
    int m_port = 0;
};

}  // namespace

TEST_F(AgentRestart, ClientIsToldThatTheAgentIsGone) {
    EXPECT_TRUE(m_client->isEnded());
    EXPECT_FALSE(m_client->write("msg::createSession\n"));
}

TEST_F(AgentRestart, SavedPortListensBeforeAnyApplicationIsThere) {
    EXPECT_FALSE(isListening(m_port));
    ASSERT_TRUE(startAgent());
    EXPECT_TRUE(isListening(m_port));
}

TEST_F(AgentRestart, PushWaitsForItsApplicationAndCostsNoProcessorTime) {
    ASSERT_TRUE(startAgent());
    const PushSender sender(m_port);
    sender.send(makePush("late", "x"));
    ASSERT_TRUE(waitForLog("serverIfProcessData: getClientObjectId is empty"));
    EXPECT_EQ(sender.readToEnd(0.3), "(still open)");
    const std::string log = agentLog();
    const std::string line = "getClientObjectId is empty";
    EXPECT_EQ(log.find(line, log.find(line) + 1), std::string::npos) << "looked at more than once";

    const auto client = connect();
    client->request("createSession", "s", kApp);
    EXPECT_EQ(client->next().msg, "onCreateSessionComplete");
    EXPECT_EQ(client->next().id, "late");
    client->request("acceptPush", "late", kApp);
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
}

TEST_F(AgentRestart, ReloadedSessionIsSavedAgainUnchanged) {
    const std::string before = readObject("/pps/services/push/quilagent");
    ASSERT_TRUE(startAgent());
    const auto client = connect();
    client->request("registerToLaunch", "l", kApp, "\"launchString\":\"x\"");
    EXPECT_EQ(client->next().id, "l");
    client->request("unregisterFromLaunch", "u", kApp);
    EXPECT_EQ(client->next().id, "u");
    EXPECT_EQ(readObject("/pps/services/push/quilagent"), before);
}

TEST_F(AgentRestart, OtherSimDeregistersAndTellsEveryClient) {
    startServer({"--delay", "0.5"});
    setSim("262019999999999");
    ASSERT_TRUE(startAgent());
    const auto first = connect();
    const auto second = connect();
    EXPECT_EQ(first->next().text, "@ipc\nmsg::onSimChange\nid::\n");
    EXPECT_EQ(second->next().text, "@ipc\nmsg::onSimChange\nid::\n");
    EXPECT_FALSE(isListening(m_port));
    EXPECT_EQ(portOf(kApp), 0);
    EXPECT_TRUE(waitUntil([&] {
        const std::string saved = readObject("/pps/services/push/quilagent");
        return saved.find("imsi::262019999999999\ndat:json:{\"sessions\":[]}") != std::string::npos;
    }));
}

TEST_F(AgentRestart, FailedDeregistrationOfAnotherSimIsToldWithItsCode) {
    startServer({"--delay", "0.5", "--fail-deregister", "555"});
    setSim("262019999999999");
    ASSERT_TRUE(startAgent());
    const auto client = connect();
    EXPECT_EQ(client->next().text, "@ipc\nmsg::onSimChange\nid::\nerr:n:555\n");
    EXPECT_TRUE(isListening(m_port)) << "the session is still there";
}

TEST_F(AgentRestart, MissingSimKeepsTheSessions) {
    writeObject("/pps/services/cellular/uicc/card0/status_private", "");
    ASSERT_TRUE(startAgent());
    EXPECT_TRUE(isListening(m_port));
}

TEST_F(AgentRestart, DamagedSavedObjectIsNoReasonToFail) {
    writeObject("/pps/services/push/quilagent", "dat::{\"sessions\":[{\n");
    ASSERT_TRUE(startAgent());
    EXPECT_FALSE(isListening(m_port));
    const auto client = connect();
    createChannel(*client);
}

TEST_F(AgentRestart, TakenPortIsLoggedAndTheSessionIsKept) {
    // Somebody else has the port now.
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(m_port));
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_TRUE(startAgent());
    EXPECT_TRUE(waitForLog("Error opening port " + std::to_string(m_port)));
    EXPECT_TRUE(waitForLog("quilAgentLoop: port [" + std::to_string(m_port) + "] fd[-1]"));
    close(listener);
}

TEST_F(AgentRestart, RestartedObjectServiceBringsBackTheSessions) {
    ASSERT_TRUE(m_ppsd->restart());
    ASSERT_TRUE(startAgent());
    EXPECT_TRUE(isListening(m_port));
}

// Times that the agent's log says `text`.
int countInLog(const std::string& log, const std::string& text) {
    int count = 0;
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

TEST_F(AgentRestart, DeathOfTheObjectServiceIsToldOnceAndCostsNoTime) {
    ASSERT_TRUE(startAgent());
    m_ppsd->kill();
    ASSERT_TRUE(waitForLog("quilAgentLoop: object service lost: errno["));
    // The handler thread may still have a line or two of its own.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::size_t before = agentLog().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_EQ(agentLog().substr(before), "");
    EXPECT_TRUE(m_agent.isRunning());
    ASSERT_TRUE(m_ppsd->start());
    EXPECT_TRUE(waitForLog("quilAgentLoop: object service is back", before));
    killAgent();
}

TEST_F(AgentRestart, ObjectServiceThatComesBackIsServedAgainWithTheSameSessionsAndPorts) {
    ASSERT_TRUE(startAgent());
    const pid_t agent = m_agent.pid();
    for (int round = 1; round <= 3; ++round) {
        m_ppsd->kill();
        ASSERT_TRUE(
            waitUntil([&] { return countInLog(agentLog(), "object service lost") == round; }));
        // What comes meanwhile waits with its sender.
        const PushSender sender(m_port);
        sender.send(makePush("late", "x"));
        ASSERT_TRUE(m_ppsd->start());
        ASSERT_TRUE(
            waitUntil([&] { return countInLog(agentLog(), "object service is back") == round; }));
        const auto client = connect();
        ASSERT_TRUE(client->isOpen());
        client->request("createSession", "s", kApp);
        EXPECT_EQ(client->next().msg, "onCreateSessionComplete");
        EXPECT_EQ(client->next().id, "late");
        client->request("acceptPush", "late", kApp);
        EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
        EXPECT_TRUE(waitUntil([&] {
            return readObject("/pps/services/push/quilagent").find(kApp) != std::string::npos;
        }));
    }
    EXPECT_EQ(m_agent.pid(), agent);
    EXPECT_TRUE(m_agent.isRunning());
}

// A push that was on its way when the service ended has nobody to go to at first. It waits; all
// else of its application does not.
TEST_F(AgentRestart, PushThatAwaitsItsApplicationHoldsUpNothingElseOfIt) {
    startServer();
    ASSERT_TRUE(startAgent());
    auto client = connect();
    client->request("createSession", "s", kApp);
    EXPECT_EQ(client->next().id, "s");
    const PushSender sender(m_port);
    const std::string push = makePush("early", "hello");
    ASSERT_TRUE(sender.send(push.substr(0, push.size() - 1)));
    ASSERT_TRUE(waitForLog("serverIfProcessData 1: recved"));
    m_ppsd->kill();
    ASSERT_TRUE(m_ppsd->start());
    ASSERT_TRUE(waitForLog("object service is back"));
    const std::size_t before = agentLog().size();
    ASSERT_TRUE(sender.send(push.substr(push.size() - 1)));
    ASSERT_TRUE(waitForLog("pushNotification: app id[", before));
    client = connect();
    client->request("registerToLaunch", "r", kApp, "\"launchString\":\"x\"");
    EXPECT_EQ(client->next().id, "r");
    client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    EXPECT_EQ(client->next().token, kPin);
    client->request("createSession", "s2", kApp);
    EXPECT_EQ(client->next().id, "s2");
    const Reply notification = client->next();
    EXPECT_EQ(notification.id, "early");
    EXPECT_EQ(notification.data, "aGVsbG8=");
    client->request("acceptPush", "early", kApp);
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
}

// The new service numbers its clients from the start: an id of the old one is another program's
// now.
TEST_F(AgentRestart, NobodyGetsWhatWasMeantForAClientOfTheServiceBefore) {
    startServer({"--delay", "1"});
    ASSERT_TRUE(startAgent());
    auto client = connect();
    client->request("createSession", "s", kApp);
    EXPECT_EQ(client->next().id, "s");
    const std::size_t before = agentLog().size();
    client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    ASSERT_TRUE(waitForLog("createChannel Called.", before));
    m_ppsd->kill();
    ASSERT_TRUE(m_ppsd->start());
    ASSERT_TRUE(waitForLog("object service is back"));
    const auto stranger = connect();
    // The registration ends, and its completion finds nobody to go to.
    ASSERT_TRUE(waitForLog("onCreateChannelComplete: Sending data back", before));
    ASSERT_TRUE(waitForLog("Wrote -1 bytes to pps.", before));
    EXPECT_TRUE(stranger->isSilent(0.5));
}

// The deregistration of the old channel is still under way when the application, told of nothing
// yet, asks for a new one.
TEST_F(AgentRestart, ChannelAskedForDuringASimChangeStands) {
    startServer({"--delay", "0.5"});
    setSim("262019999999999");
    ASSERT_TRUE(startAgent());
    const auto other = connect();
    const auto client = connect();
    client->request("createSession", "s", kApp);
    client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    std::string token;
    bool isTold = false;
    for (int i = 0; i < 3; ++i) {
        const Reply reply = client->next();
        isTold = isTold || reply.msg == "onSimChange";
        token += reply.msg == "onCreateChannelComplete" ? reply.token : "";
        EXPECT_NE(reply.msg, "onDestroyChannelComplete");
    }
    EXPECT_TRUE(isTold);
    EXPECT_EQ(token, kPin);
    EXPECT_EQ(other->next().text, "@ipc\nmsg::onSimChange\nid::\n");
    EXPECT_TRUE(isListening(portOf(kApp)));
    EXPECT_TRUE(waitUntil([&] {
        return readObject("/pps/services/push/quilagent").find(kApp) != std::string::npos;
    }));
}

// All of their deregistrations hang, and whoever has nothing to do with them notices nothing.
TEST_F(AgentRestart, SimChangeOfAHundredSessionsWithADeadServerDisturbsNobodyElse) {
    const int dead = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);  // connects, and never answers
    ASSERT_TRUE(bindLoopback(dead));
    ASSERT_EQ(listen(dead, 128), 0);
    std::string sessions;
    for (int i = 0; i < 100; ++i) {
        sessions +=
            std::string(sessions.empty() ? "" : ",") + "{\"providerApplicationId\":\"a" +
            std::to_string(i) +
            "\",\"ppgUrl\":\"http://127.0.0.1:" + std::to_string(boundPort(dead)) +
            "\",\"launchString\":\"\",\"token\":\"t\",\"port\":" + std::to_string(freePort()) + "}";
    }
    writeObject(
        "/pps/services/push/quilagent",
        "version::5.0.0\nimsi::001010000000001\ndat:json:{\"sessions\":[" + sessions + "]}\n");
    setSim("262019999999999");
    ASSERT_TRUE(startAgent());
    ASSERT_TRUE(waitForLog("processSimChange: app id [a99]"));
    const auto begin = std::chrono::steady_clock::now();
    const auto client = connect();
    const std::string app = "com.example.innocent";
    const int port = createChannel(*client, app);
    ASSERT_GT(port, 0);
    for (int i = 0; i < 20; ++i) {
        const std::string id = "p" + std::to_string(i);
        const PushSender sender(port);
        sender.send(makePush(id, "x"));
        ASSERT_EQ(client->next().id, id);
        client->request("acceptPush", id, app);
        ASSERT_TRUE(isAcknowledgement(sender.readToEnd()));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    close(dead);
}
