// Applications of every kind at the served object: several, gone ones, and those that write
// nonsense.

#include "tests/integration/device.hpp"

namespace {

class AgentClients : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        startServer();
        ASSERT_TRUE(startAgent());
    }

    // Writes a text and expects the agent to stay silent and alive.
    void expectSilence(ClientConnection& client, const std::string& text) {
        EXPECT_TRUE(client.write(text)) << text.substr(0, 100);
        EXPECT_TRUE(client.isSilent(0.1)) << text.substr(0, 100);
        expectAlive(client);
    }

    void expectAlive(ClientConnection& client) {
        client.request("createSession", "alive", "alive");
        EXPECT_EQ(client.next().text, "@ipc\nmsg::onCreateSessionComplete\nid::alive\n");
    }
};

}  // namespace

TEST_F(AgentClients, TwoApplicationsGetTheirOwnPushes) {
    const auto news = connect();
    const auto mail = connect();
    const int newsPort = createChannel(*news, "news");
    const int mailPort = createChannel(*mail, "mail");
    const PushSender newsSender(newsPort);
    newsSender.send(makePush("n", "for news"));
    const PushSender mailSender(mailPort);
    mailSender.send(makePush("m", "for mail"));
    EXPECT_EQ(news->next().id, "n");
    EXPECT_EQ(mail->next().id, "m");
    EXPECT_TRUE(news->isSilent(0.1));
    EXPECT_TRUE(mail->isSilent(0.1));
}

TEST_F(AgentClients, PushesGoToTheLatestClientOfAnApplication) {
    const auto first = connect();
    const int port = createChannel(*first);
    const auto second = connect();
    second->request("createSession", "s", kApp);
    EXPECT_EQ(second->next().msg, "onCreateSessionComplete");
    const PushSender sender(port);
    sender.send(makePush("m", "x"));
    EXPECT_EQ(second->next().id, "m");
    EXPECT_TRUE(first->isSilent(0.1));
}

TEST_F(AgentClients, PushForAClientThatLeftIsDroppedAndItsSenderWaits) {
    const auto client = connect();
    const int port = createChannel(*client);
    client->close();
    ASSERT_TRUE(waitForLog("PPS_DELETE: removed client id"));
    const PushSender sender(port);
    sender.send(makePush("m", "x"));
    EXPECT_EQ(sender.readToEnd(0.3), "(still open)");
    // The next client of the application can still answer it.
    const auto next = connect();
    next->request("createSession", "s", kApp);
    next->next();
    next->request("acceptPush", "m", kApp);
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
}

TEST_F(AgentClients, ConnectingAndLeavingChangesNothing) {
    const auto stays = connect();
    const int port = createChannel(*stays);
    for (int i = 0; i < 20; ++i) {
        connect()->close();
    }
    EXPECT_TRUE(isListening(port));
    EXPECT_TRUE(stays->isSilent(0.1));
    expectAlive(*stays);
}

TEST_F(AgentClients, UnknownRequestIsLoggedAndNotAnswered) {
    const auto client = connect();
    expectSilence(*client, "msg::fly\nid::1\ndat:json:{\"providerApplicationId\":\"a\"}\n");
    expectSilence(*client, "msg::fly\nid::1\n");
    expectSilence(*client, "msg::onSimChange\nid::1\ndat:json:{\"providerApplicationId\":\"a\"}\n");
    EXPECT_TRUE(waitForLog("Unexpected client message received: fly"));
}

TEST_F(AgentClients, RequestsWithoutApplicationIdAreAnsweredBy500OrNotAtAll) {
    const auto client = connect();
    const std::string noId[] = {"",
                                "dat:json:{}\n",
                                "dat::text\n",
                                "dat:json:[1]\n",
                                "dat:json:{\"providerApplicationId\":\"\"}\n",
                                "dat:json:{\"providerApplicationId\":5}\n"};
    for (const std::string& dat : noId) {
        for (const char* name : {"createSession", "createChannel", "destroyChannel"}) {
            client->write(std::string("msg::") + name + "\nid::7\n" + dat);
            const Reply reply = client->next();
            EXPECT_EQ(reply.err, 500) << name << dat;
            EXPECT_EQ(reply.id, "7") << name << dat;
        }
        for (const char* name :
             {"registerToLaunch", "unregisterFromLaunch", "acceptPush", "rejectPush"}) {
            client->write(std::string("msg::") + name + "\nid::7\n" + dat);
        }
        EXPECT_TRUE(client->isSilent(0.1)) << dat;
    }
}

TEST_F(AgentClients, RequestsForAnUnknownApplication) {
    const auto client = connect();
    client->request("createChannel", "1", "nobody", "\"ppgUrl\":\"http://127.0.0.1:1\"");
    EXPECT_EQ(client->next().text, "@ipc\nmsg::onCreateChannelComplete\nid::1\nerr:n:500\n");
    client->request("destroyChannel", "2", "nobody");
    EXPECT_EQ(client->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::2\nerr:n:10100\n");
    client->request("registerToLaunch", "3", "nobody", "\"launchString\":\"x\"");
    EXPECT_EQ(client->next().text, "@ipc\nid::3\nerr:n:500\n");
    client->request("unregisterFromLaunch", "4", "nobody");
    EXPECT_EQ(client->next().text, "@ipc\nid::4\nerr:n:500\n");
    client->request("acceptPush", "5", "nobody");
    client->request("rejectPush", "6", "nobody");
    EXPECT_TRUE(client->isSilent(0.1));
}

TEST_F(AgentClients, RefusalsOfAKnownApplication) {
    const auto client = connect();
    client->request("createSession", "0", kApp);
    client->next();
    client->request("createChannel", "1", kApp);
    EXPECT_EQ(client->next().text, "@ipc\nmsg::onCreateChannelComplete\nid::1\nerr:n:10102\n");
    client->request("createChannel", "2", kApp, "\"ppgUrl\":17");
    EXPECT_EQ(client->next().err, 10102);
    client->request("registerToLaunch", "3", kApp, "\"launchString\":\"\"");
    EXPECT_EQ(client->next().text, "@ipc\nid::3\nerr:n:10101\n");
    client->request("destroyChannel", "4", kApp);
    EXPECT_EQ(client->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::4\nerr:n:10106\n");
}

TEST_F(AgentClients, DestroyedChannelCannotBeDestroyedAgain) {
    const auto client = connect();
    createChannel(*client);
    client->request("destroyChannel", "1", kApp);
    EXPECT_EQ(client->next().err, 0);
    client->request("destroyChannel", "2", kApp);
    EXPECT_EQ(client->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::2\nerr:n:10004\n");
}

TEST_F(AgentClients, TextThatIsNoRequestIsLoggedAndNotAnswered) {
    const auto client = connect();
    expectSilence(*client, "other::x\n");
    expectSilence(*client, "msg::\nid::1\n");
    expectSilence(*client, "msg:n:5\nid::1\n");
    expectSilence(*client, "msg:json:{\"a\":[[[[[[[\n");
    EXPECT_TRUE(waitForLog("Empty message received from [@ipc."));
}

TEST_F(AgentClients, RequestOf8192BytesAndMoreIsCut) {
    const auto client = connect();
    for (const std::size_t length : {8000U, 8192U, 9000U, 200000U}) {
        const std::string text = "msg::createSession\nid::" + std::string(length, 'i') +
                                 "\ndat:json:{\"providerApplicationId\":\"a\"}\n";
        EXPECT_TRUE(client->write(text));
        const Reply reply = client->next();
        EXPECT_EQ(reply.msg, "onCreateSessionComplete") << length;
        EXPECT_EQ(reply.err, length < 8100 ? 0 : 500) << length;
    }
    expectAlive(*client);
}

TEST_F(AgentClients, ForgedObjectLineDoesNotSpeakForAnother) {
    const auto victim = connect();
    const auto forger = connect();
    forger->write(
        "@ipc.1\nmsg::createSession\nid::f\ndat:json:{\"providerApplicationId\":\"x\"}\n");
    EXPECT_EQ(forger->next().id, "f");
    EXPECT_TRUE(victim->isSilent(0.1));
}

TEST_F(AgentClients, IdsAndApplicationIdsWithAnyBytesComeBackAsTheyAre) {
    const auto client = connect();
    client->write(
        "msg::createSession\nid:c:a\\nerr:n:5\\\\\ndat:json:{\"providerApplicationId\":\"x\\ny\"}"
        "\n");
    const Reply reply = client->next();
    EXPECT_EQ(reply.id, "a\nerr:n:5\\");
    EXPECT_EQ(reply.err, 0);
}
