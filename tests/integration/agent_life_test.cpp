// The life of a channel on the real stack, from request to last byte.

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/integration/device.hpp"

namespace {

class AgentLife : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        startServer();
        ASSERT_TRUE(startAgent());
        m_client = connect();
        ASSERT_TRUE(m_client->isOpen());
    }

    std::unique_ptr<ClientConnection> m_client;
};

}  // namespace

TEST_F(AgentLife, AcceptedPushIsAcknowledgedWith72BytesAndClosed) {
    const int port = createChannel(*m_client);
    const PushSender sender(port);
    sender.send(makePush("m1", "hello"));
    const Reply push = m_client->next();
    EXPECT_EQ(
        push.text,
        "@ipc\nmsg::pushNotification\nid::m1\ndat:json:{\"appLevelAck\":1,\"data\":\"aGVsbG8=\","
        "\"httpHeaders\":{\"Content-Length\":\" 5\",\"Push-Message-ID\":\"m1\"}}\n");
    m_client->request("acceptPush", "m1", kApp);
    const std::string answer = sender.readToEnd();
    EXPECT_TRUE(isAcknowledgement(answer)) << answer;
    EXPECT_TRUE(m_client->isSilent()) << "an answer to acceptPush";
}

TEST_F(AgentLife, RejectedPushIsClosedWithoutAByte) {
    const PushSender sender(createChannel(*m_client));
    sender.send(makePush("m1", "hello"));
    EXPECT_EQ(m_client->next().appLevelAck, 1);
    m_client->request("rejectPush", "m1", kApp);
    EXPECT_EQ(sender.readToEnd(), "");
    EXPECT_TRUE(m_client->isSilent()) << "an answer to rejectPush";
}

TEST_F(AgentLife, PushOfASenderThatClosesNeedsNoAnswer) {
    PushSender sender(createChannel(*m_client));
    sender.send(makePush("m1", "hello"));
    sender.close();
    const Reply push = m_client->next();
    EXPECT_EQ(push.data, "aGVsbG8=");
    // Whether the close was seen in time is the network's business; an answer is harmless either
    // way.
    m_client->request("acceptPush", "m1", kApp);
    EXPECT_TRUE(m_client->isSilent());
}

TEST_F(AgentLife, PushOfAHalfClosedSenderNeedsNoAnswer) {
    const PushSender sender(createChannel(*m_client));
    const std::string push = makePush("m1", "hello");
    sender.send(push.substr(0, push.size() - 1));
    ASSERT_TRUE(waitForLog("hasMoreData: m_contentLength[5] m_dataLength[4]"));
    sender.send(push.substr(push.size() - 1));
    sender.finishSending();
    const Reply reply = m_client->next();
    EXPECT_EQ(reply.data, "aGVsbG8=");
    if (reply.appLevelAck == 0) {
        EXPECT_EQ(sender.readToEnd(), "");
    } else {
        // The close came after the look that the agent takes.
        m_client->request("acceptPush", "m1", kApp);
        EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
    }
}

TEST_F(AgentLife, AnswerToAnUnknownPushIsLoggedAndNothingElse) {
    createChannel(*m_client);
    m_client->request("rejectPush", "nobody", kApp);
    EXPECT_TRUE(waitForLog("Failed to find pushId[nobody]"));
    EXPECT_TRUE(m_client->isSilent());
}

TEST_F(AgentLife, DestroyedChannelStopsListeningAndIsDeregistered) {
    const int port = createChannel(*m_client);
    m_client->request("destroyChannel", "d", kApp);
    EXPECT_EQ(m_client->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::d\n");
    EXPECT_FALSE(isListening(port));
    EXPECT_EQ(portOf(kApp), 0);
    EXPECT_TRUE(waitUntil([&] {
        return readObject("/pps/services/push/quilagent").find("\"sessions\":[]") !=
               std::string::npos;
    }));
}

TEST_F(AgentLife, SameApplicationCanCreateItsChannelAgainAfterDestroyingIt) {
    createChannel(*m_client);
    m_client->request("destroyChannel", "d", kApp);
    m_client->next();
    const PushSender sender(createChannel(*m_client));
    sender.send(makePush("m2", "again"));
    EXPECT_EQ(m_client->next().id, "m2");
    m_client->request("acceptPush", "m2", kApp);
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
}

TEST_F(AgentLife, SecondCreateChannelRegistersFromScratch) {
    const int first = createChannel(*m_client);
    m_client->request("createChannel", "c2", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    EXPECT_EQ(m_client->next().token, kPin);
    EXPECT_TRUE(waitForLog("Registered state, revert back to Create state."));
    EXPECT_TRUE(isListening(portOf(kApp)));
    EXPECT_EQ(portOf(kApp), first) << "the server gives the same port again";
}

TEST_F(AgentLife, TwoCreateChannelsInARowLeaveOnePort) {
    m_client->request("createSession", "s", kApp);
    m_client->next();
    for (const char* id : {"c1", "c2"}) {
        m_client->request("createChannel", id, kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    }
    EXPECT_EQ(m_client->next().token, kPin);
    EXPECT_EQ(m_client->next().token, kPin);
    const PushSender sender(portOf(kApp));
    sender.send(makePush("m1", "x"));
    EXPECT_EQ(m_client->next().id, "m1");
}

TEST_F(AgentLife, SavedObjectHoldsVersionSimAndSession) {
    const int port = createChannel(*m_client);
    const std::string expected =
        "@quilagent\nversion::5.0.0\nimsi::001010000000001\ndat:json:{\"sessions\":[{"
        "\"providerApplicationId\":\"com.example.app\",\"ppgUrl\":\"" +
        ppgUrl() +
        "\",\"launchString\":\"\",\"token\":\"2a3b4c5d\",\"port\":" + std::to_string(port) +
        "}]}\n";
    EXPECT_TRUE(
        waitUntil([&] { return readObject("/pps/services/push/quilagent") == expected; }, 5))
        << readObject("/pps/services/push/quilagent");
}

TEST_F(AgentLife, LaunchStringIsSavedAndCleared) {
    createChannel(*m_client);
    m_client->request("registerToLaunch", "l1", kApp, "\"launchString\":\"open://x\"");
    EXPECT_EQ(m_client->next().text, "@ipc\nid::l1\n");
    EXPECT_NE(readObject("/pps/services/push/quilagent").find("\"launchString\":\"open://x\""),
              std::string::npos);
    m_client->request("unregisterFromLaunch", "l2", kApp);
    EXPECT_EQ(m_client->next().text, "@ipc\nid::l2\n");
    EXPECT_NE(readObject("/pps/services/push/quilagent").find("\"launchString\":\"\""),
              std::string::npos);
}

TEST_F(AgentLife, IdleAgentHasTwoThreadsAndOneIsNamed) {
    createChannel(*m_client);
    const std::string tasks = "/proc/" + std::to_string(m_agent.pid()) + "/task";
    std::string names;
    int count = 0;
    const auto look = [&] {
        names.clear();
        count = 0;
        for (const auto& task : std::filesystem::directory_iterator(tasks)) {
            std::ifstream file(task.path() / "comm");
            std::string name;
            std::getline(file, name);
            names += "[" + name + "]";
            ++count;
        }
        return names.find("[PUSH SERVER]") == std::string::npos;
    };
    // The one that talked to the push server ends when it has no more to do.
    EXPECT_TRUE(waitUntil(look)) << names;
    // A sanitizer's runtime brings a thread of its own, which bears the process's name.
#if defined(__SANITIZE_THREAD__)
    EXPECT_EQ(count, 3) << names;
#else
    EXPECT_EQ(count, 2) << names;
#endif
    EXPECT_NE(names.find("[MSG HANDLER]"), std::string::npos) << names;
}

TEST_F(AgentLife, AgentRunsAsTheUserThatItWasGiven) {
    std::ifstream status("/proc/" + std::to_string(m_agent.pid()) + "/status");
    std::string line;
    while (std::getline(status, line) && !line.starts_with("Uid:")) {
    }
    const std::string user = geteuid() == 0 ? "65534" : std::to_string(geteuid());
    EXPECT_EQ(line, "Uid:\t" + user + "\t" + user + "\t" + user + "\t" + user);
}

// As a shell leaves it there that wrote to the object while the agent was away.
TEST_F(AgentLife, StartSaysWhatIsInTheWayOfTheClientObject) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root's object is in the way of another user";
    }
    m_client.reset();
    killAgent();
    writeObject("/pps/services/push/ipc", "x::y\n");
    std::filesystem::permissions(m_ppsd->path("/services/push/ipc"),
                                 std::filesystem::perms::owner_read);
    const std::size_t before = agentLog().size();
    startAgent();
    EXPECT_EQ(m_agent.wait(), 0) << "the agent runs on";
    EXPECT_NE(
        agentLog().find("clientIfInit: /pps/services/push/ipc belongs to user 0 and is in the "
                        "way of user 65534. Remove it, then start again.",
                        before),
        std::string::npos)
        << agentLog().substr(before);
}
