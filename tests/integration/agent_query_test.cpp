// What "queryChannel" tells: whether an application that comes back has its channel still, so that
// it need not ask for a new one and lose what waits on the port of the old one.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "tests/integration/device.hpp"
#include "tests/support/loopback.hpp"

namespace {

class AgentQuery : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_TRUE(startAgent());
        m_client = connect();
    }

    std::string query(const std::string& appId = kApp) {
        m_client->request("queryChannel", "q", appId);
        return m_client->next().text;
    }
    // The answer for a session.
    std::string answer(int registered, int listening, int port, const std::string& token) const {
        return "@ipc\nmsg::onQueryChannelComplete\nid::q\ndat:json:{\"registered\":" +
               std::to_string(registered) + ",\"listening\":" + std::to_string(listening) +
               ",\"port\":" + std::to_string(port) + ",\"token\":\"" + token + "\",\"ppgUrl\":\"" +
               (m_server == nullptr ? "" : ppgUrl()) + "\"}\n";
    }
    void createSession() {
        m_client->request("createSession", "s", kApp);
        EXPECT_EQ(m_client->next().msg, "onCreateSessionComplete");
    }
    void restartAgent() {
        killAgent();
        ASSERT_TRUE(startAgent());
        m_client = connect();
    }

    std::unique_ptr<ClientConnection> m_client;
};

const std::string kNoSession = "@ipc\nmsg::onQueryChannelComplete\nid::q\nerr:n:10100\n";

}  // namespace

TEST_F(AgentQuery, WithoutASessionOrAnApplicationIdIs10100) {
    EXPECT_EQ(query(), kNoSession);
    EXPECT_EQ(query(""), kNoSession);
    m_client->write("msg::queryChannel\nid::q\n");
    EXPECT_EQ(m_client->next().text, kNoSession);
}

TEST_F(AgentQuery, SessionThatNeverAskedForAChannelHasNone) {
    createSession();
    EXPECT_EQ(query(), answer(0, 0, 0, ""));
}

TEST_F(AgentQuery, ChannelThatIsBeingMadeIsNoneYetAndTheAnswerDoesNotWaitForIt) {
    startServer({"--delay", "1", "--at-step", "2"});
    createSession();
    m_client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    EXPECT_EQ(query(), answer(0, 0, 0, "")) << "came before the channel";
    const std::string token = m_client->next().token;
    EXPECT_NE(token, "");
    EXPECT_EQ(query(), answer(1, 1, portOf(kApp), token));
}

TEST_F(AgentQuery, DestroyedChannelIsNone) {
    startServer();
    createChannel(*m_client);
    m_client->request("destroyChannel", "d", kApp);
    EXPECT_EQ(m_client->next().err, 0);
    EXPECT_EQ(query(), answer(0, 0, 0, ""));
}

TEST_F(AgentQuery, ChannelStandsAfterARestartOfTheAgentAndWhatWaitsComes) {
    startServer();
    const int port = createChannel(*m_client);
    ASSERT_TRUE(waitForLog("Save to persistent memory returns 1"));
    restartAgent();
    const PushSender first(port);
    const PushSender second(port);
    ASSERT_TRUE(first.send(makePush("1", "x")));
    ASSERT_TRUE(second.send(makePush("2", "x")));
    ASSERT_TRUE(waitForLog("quilAgentLoop"));
    EXPECT_NE(query().find("\"registered\":1,\"listening\":1,\"port\":" + std::to_string(port)),
              std::string::npos);
    createSession();
    EXPECT_EQ(m_client->next().id, "1");
    EXPECT_EQ(m_client->next().id, "2");
}

TEST_F(AgentQuery, PortThatSomebodyElseHasIsNotListened) {
    startServer();
    const int port = createChannel(*m_client);
    ASSERT_TRUE(waitForLog("Save to persistent memory returns 1"));
    killAgent();
    const int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(taken, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ASSERT_TRUE(bindLoopback(taken, port));
    ASSERT_EQ(listen(taken, 1), 0);
    ASSERT_TRUE(startAgent());
    m_client = connect();
    createSession();
    EXPECT_NE(query().find("\"registered\":1,\"listening\":0,\"port\":" + std::to_string(port)),
              std::string::npos);
    close(taken);
}

// Who may act for it, and who may not, is asked by any connection alike.
TEST_F(AgentQuery, AnotherConnectionOfTheApplicationMayAskAndTakesNothing) {
    startServer();
    const int port = createChannel(*m_client);
    const auto other = connect();
    other->request("queryChannel", "q", kApp);
    EXPECT_NE(other->next().text.find("\"listening\":1"), std::string::npos);
    const PushSender sender(port);
    ASSERT_TRUE(sender.send(makePush("1", "x")));
    EXPECT_EQ(m_client->next().id, "1");
    EXPECT_TRUE(other->isSilent());
}
