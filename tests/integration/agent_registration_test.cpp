// Every way in which a registration can end, with the real push data server and with one that sends
// raw bytes.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/integration/device.hpp"

namespace {

class AgentRegistration : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        configure("http-timeout 2");
        ASSERT_TRUE(startAgent());
        m_client = connect();
        m_client->request("createSession", "s", kApp);
        m_client->next();
    }

    // Asks for a channel and expects the failure that applications see: no error code, and an empty
    // token.
    void expectFailure() {
        m_client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
        EXPECT_EQ(m_client->next().text,
                  "@ipc\nmsg::onCreateChannelComplete\nid::c\ndat:json:{\"token\":\"\"}\n");
    }

    // The code that the registration ended with, as the completion's line of the log tells it.
    void expectLogged(const std::string& text) { EXPECT_TRUE(waitForLog(text)) << text; }

    // Takes a channel down on the server's terms and gives the code that the application gets.
    int destroyWith(const std::vector<std::string>& server) {
        startServer();
        createChannel(*m_client);
        startServer(server);
        m_client->request("destroyChannel", "d", kApp);
        const Reply reply = m_client->next();
        EXPECT_EQ(reply.msg, "onDestroyChannelComplete");
        EXPECT_EQ(reply.id, "d");
        return reply.err;
    }

    std::unique_ptr<ClientConnection> m_client;
};

}  // namespace

TEST_F(AgentRegistration, OneStepAnswerBringsNoPort) {
    startServer({"--one-step"});
    expectFailure();
    expectLogged("getReturnCode: Response Code [200]");
}

TEST_F(AgentRegistration, AnswerWithoutCodeOrParameterFails) {
    startServer({"--first-body", "hello"});
    expectFailure();
    expectLogged("subcribe URL OVRA server rejected registration. Details: response code [hello]");
}

TEST_F(AgentRegistration, SecondAnswerWithoutCodeFails) {
    startServer({"--second-body", "hello"});
    expectFailure();
    expectLogged("2: http_rc [0] response: [hello]");
}

TEST_F(AgentRegistration, RejectionOfTheServerFails) {
    startServer({"--rc", "10005"});
    expectFailure();
    expectLogged("OVRA server rejected registration. app id [com.example.app]");
}

TEST_F(AgentRegistration, CodeZeroOpensNothingButCountsAsDone) {
    startServer({"--rc", "0"});
    m_client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    // Nothing was reported as wrong, so the session is registered, without a port.
    EXPECT_EQ(m_client->next().token, kPin);
    EXPECT_FALSE(isListening(portOf(kApp)));
}

TEST_F(AgentRegistration, AlreadyRegisteredCountsAsSuccess) {
    startServer({"--rc", "10003"});
    EXPECT_GT(createChannel(*m_client), 0);
}

TEST_F(AgentRegistration, UnusablePortsFail) {
    for (const char* port : {"0", "-5", "letters"}) {
        startServer({"--port-header", port});
        const std::size_t before = agentLog().size();
        expectFailure();
        EXPECT_TRUE(waitForLog("OVRA registration failed. Invalid port received", before)) << port;
    }
    startServer({"--no-port-header"});
    expectFailure();
}

TEST_F(AgentRegistration, PortBeyond65535IsRefusedWhenItIsOpened) {
    startServer({"--port-header", "65536"});
    m_client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    EXPECT_EQ(m_client->next().msg, "onCreateChannelComplete");
    expectLogged("Error opening port 65536");
}

TEST_F(AgentRegistration, HttpStatusOtherThan200Fails) {
    startServer({"--status", "503"});
    expectFailure();
    expectLogged("HTTP Transport failure: rc [0] HTTP Status[503]");
}

TEST_F(AgentRegistration, SilentServerFailsAfterTheTimeoutAndHoldsUpNobodyForGood) {
    startServer({"--hang"});
    expectFailure();
    expectLogged("HTTP Transport failure: rc [28]");
    startServer();
    createChannel(*m_client);
}

TEST_F(AgentRegistration, ServerThatClosesOrSendsGarbageFails) {
    startServer({"--close"});
    expectFailure();
    startServer({"--garbage"});
    expectFailure();
    startServer();
    createChannel(*m_client);
}

TEST_F(AgentRegistration, NoServerAtAllFails) {
    startServer();
    m_server->signal(SIGKILL);
    m_server->wait();
    expectFailure();
    expectLogged("HTTP Transport failure: rc [7]");
}

TEST_F(AgentRegistration, UrlOfAnotherSchemeIsRefused) {
    for (const char* url : {"file:///etc/passwd?", "gopher://127.0.0.1:1", "ftp.example"}) {
        m_client->request("createChannel", "c", kApp, std::string("\"ppgUrl\":\"") + url + "\"");
        EXPECT_EQ(m_client->next().token, "") << url;
    }
    expectLogged("HTTP Transport failure: rc [1]");
}

TEST_F(AgentRegistration, HugeBodyIsCutAndFails) {
    startServer({"--first-body", "x", "--big-body", "3000000"});
    expectFailure();
    expectLogged("Len of response [8191]");
}

TEST_F(AgentRegistration, FailedRegistrationCanBeRepeated) {
    startServer({"--rc", "10005", "--times", "1"});
    expectFailure();
    EXPECT_GT(createChannel(*m_client), 0);
}

TEST_F(AgentRegistration, RegistrationCarriesApplicationOsVersionAndModel) {
    startServer();
    createChannel(*m_client);
    expectLogged("/mss/PD_subReg?serviceid=com.example.app&osversion=10.3.1&model=0x0400]");
}

TEST_F(AgentRegistration, FailedDeregistrationTellsTheServersCode) {
    EXPECT_EQ(destroyWith({"--fail-deregister", "555"}), 555);
    EXPECT_TRUE(isListening(portOf(kApp))) << "the channel stands";
}

TEST_F(AgentRegistration, DeregistrationInOneStepTellsCode200) {
    EXPECT_EQ(destroyWith({"--one-step"}), 200);
}

TEST_F(AgentRegistration, DeregistrationWithoutServerTells10103) {
    EXPECT_EQ(destroyWith({"--close"}), 10103);
}

TEST_F(AgentRegistration, DeregistrationWithoutCodeTells10110Or10108) {
    EXPECT_EQ(destroyWith({"--first-body", "hello"}), 10110);
    EXPECT_EQ(destroyWith({"--second-body", "hello"}), 10108);
}

// The application does not wait for the end of the old channel.
TEST_F(AgentRegistration, ChannelAskedForRightBehindADestroyStands) {
    startServer({"--delay", "0.2"});
    ASSERT_GT(createChannel(*m_client), 0);
    m_client->request("destroyChannel", "d", kApp);
    m_client->request("createChannel", "c", kApp, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    std::string heard;
    for (int i = 0; i < 2; ++i) {
        const Reply reply = m_client->next();
        EXPECT_EQ(reply.err, 0);
        heard += reply.msg + " ";
    }
    EXPECT_NE(heard.find("onCreateChannelComplete"), std::string::npos) << heard;
    EXPECT_NE(heard.find("onDestroyChannelComplete"), std::string::npos) << heard;
    // What the application was told is so: there is a port, it is saved, and pushes arrive.
    const int port = portOf(kApp);
    ASSERT_GT(port, 0);
    EXPECT_TRUE(waitUntil([&] { return isListening(port); }));
    EXPECT_TRUE(waitUntil([&] {
        return readObject("/pps/services/push/quilagent").find(kApp) != std::string::npos;
    }));
    const PushSender sender(port);
    sender.send(makePush("p", "x"));
    EXPECT_EQ(m_client->next().id, "p");
}

// Each of them costs the agent a descriptor; they must not take the numbers of listening sockets.
TEST_F(AgentRegistration, MissingIdentityDoesNotTakeTheListeningSocketsAway) {
    writeObject("/pps/services/deviceproperties", "");
    writeObject("/pps/system/nvram/deviceinfo", "PIN::0x" + std::string(kPin) + "\n");
    killAgent();
    ASSERT_TRUE(startAgent());
    m_client = connect();
    m_client->request("createSession", "s", kApp);
    m_client->next();
    startServer();
    int port = 0;
    for (int i = 0; i < 130; ++i) {
        m_client->request("createChannel", "c" + std::to_string(i), kApp,
                          "\"ppgUrl\":\"" + ppgUrl() + "\"");
        ASSERT_EQ(m_client->next().token, kPin) << i;
        port = portOf(kApp);
    }
    const PushSender sender(port);
    sender.send(makePush("p", "x"));
    EXPECT_EQ(m_client->next().id, "p");
}
