// Every program of examples/ on the whole stack, as a reader of the documents would run it.

#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "tests/integration/device.hpp"

namespace {

constexpr const char* kExampleApp = "com.example.news";

class Examples : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        startServer();
        ASSERT_TRUE(startAgent());
    }

    static std::string example(const std::string& name) {
        return std::string(std::getenv("QUIL_SOURCE")) + "/examples/" + name;
    }

    // The applications: the one in C++ is built, the others run as they are.
    static std::string listening(const std::string& language) {
        return language == "cpp" ? builtProgram("example_listen") : example("listen." + language);
    }

    void startApplication(const std::string& program) {
        ASSERT_TRUE(m_application.start({program, kExampleApp, ppgUrl()}));
        ASSERT_TRUE(m_application.waitForOutput(std::string("channel ") + kPin + "\n"))
            << m_application.output();
    }

    // Sends a push and expects the application to have shown and accepted it.
    void expectPushIsAccepted() {
        const PushSender sender(portOf(kExampleApp));
        ASSERT_TRUE(
            sender.send("POST / HTTP/1.1\r\nContent-Length: 12\r\nPush-Message-ID: m1\r\n"
                        "\r\nhello w\xc3\xb6rld"));
        EXPECT_TRUE(isAcknowledgement(sender.readToEnd())) << m_application.output();
        EXPECT_TRUE(m_application.waitForOutput("push m1: hello w\xc3\xb6rld\n"))
            << m_application.output();
    }

    // What a sender writes need not be text, and text can hold other ends of lines than LF.
    void expectAnyBytesAreAccepted() {
        const PushSender sender(portOf(kExampleApp));
        ASSERT_TRUE(
            sender.send("POST / HTTP/1.1\r\nA: \xff \xe2\x80\xa8 \xc2\x85 \x0b\r\n"
                        "Push-Message-ID: \xff\xe2\x80\xa8\\\x01\r\n\r\nhello"));
        EXPECT_TRUE(isAcknowledgement(sender.readToEnd())) << m_application.output();
    }

    // Runs a sender against an application that answers with `answer`; its exit status.
    int sendAndAnswer(const std::string& program, const std::string& answer) {
        const std::unique_ptr<ClientConnection> client = connect();
        const int port = createChannel(*client, kExampleApp);
        EXPECT_TRUE(
            m_sender.start({program, "127.0.0.1", std::to_string(port), "m7", "two\nlines"}));
        const Reply push = client->next();
        EXPECT_EQ(push.id, " m7");
        EXPECT_EQ(push.data, "dHdvCmxpbmVz");
        EXPECT_EQ(push.appLevelAck, 1);
        client->request(answer, push.id, kExampleApp);
        return m_sender.wait();
    }

    ChildProcess m_application{m_root.path("/application.log")};
    ChildProcess m_sender{m_root.path("/sender.log")};
};

}  // namespace

class ListeningExample : public Examples, public ::testing::WithParamInterface<const char*> {
  protected:
    void start() { startApplication(listening(GetParam())); }
    // What it says from `before` on.
    void expectSaid(const std::string& text, std::size_t before) {
        EXPECT_TRUE(m_application.waitForOutput(text, before)) << m_application.output();
    }
    std::size_t said() const { return m_application.output().size(); }
    const std::string kChannel = std::string("channel ") + kPin + "\n";
};

TEST_P(ListeningExample, AcceptsAPushAndEndsWhenItIsTold) {
    start();
    expectPushIsAccepted();
    m_application.signal(SIGTERM);
    EXPECT_EQ(m_application.wait(), 0);
}

TEST_P(ListeningExample, StartsOverWithANewAgentAndKeepsItsChannel) {
    start();
    ASSERT_TRUE(waitForLog("Save to persistent memory returns 1"));
    const int port = portOf(kExampleApp);
    const std::size_t before = said();
    killAgent();
    expectSaid("waiting for the agent", before);
    ASSERT_TRUE(startAgent());
    expectSaid(kChannel, before);
    EXPECT_EQ(portOf(kExampleApp), port);
    expectPushIsAccepted();
}

TEST_P(ListeningExample, StartsOverWithANewObjectService) {
    start();
    for (int round = 0; round < 2; ++round) {
        const std::size_t before = said();
        m_ppsd->kill();
        expectSaid("waiting for the agent", before);
        ASSERT_TRUE(m_ppsd->start());
        expectSaid(kChannel, before);
        expectPushIsAccepted();
    }
}

TEST_P(ListeningExample, WaitsForAnAgentThatIsNotThereYet) {
    killAgent();
    ASSERT_TRUE(m_application.start({listening(GetParam()), kExampleApp, ppgUrl()}));
    expectSaid("waiting for the agent", 0);
    ASSERT_TRUE(startAgent());
    expectSaid(kChannel, 0);
    expectPushIsAccepted();
}

TEST_P(ListeningExample, AsksAgainForAChannelThatItDidNotGet) {
    m_server->signal(SIGKILL);
    m_server->wait();
    ASSERT_TRUE(m_application.start({listening(GetParam()), kExampleApp, ppgUrl()}));
    expectSaid("channel", 0);
    EXPECT_EQ(m_application.output().find(kChannel), std::string::npos);
    startServer();
    expectSaid(kChannel, 0);
    expectPushIsAccepted();
}

TEST_P(ListeningExample, MakesItsChannelAnewForAnotherSim) {
    start();
    ASSERT_TRUE(waitForLog("Save to persistent memory returns 1"));
    killAgent();
    const std::size_t before = said();
    setSim("001010000000002");
    startServer({"--delay", "1", "--at-step", "2"});
    ASSERT_TRUE(startAgent());
    expectSaid(kChannel, before);
    expectPushIsAccepted();
}

// Its sender broke off, or counts wrongly; what lacks something is no push to accept.
TEST_P(ListeningExample, RejectsAPushThatCameShort) {
    start();
    const PushSender sender(portOf(kExampleApp));
    ASSERT_TRUE(sender.send("POST / HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m1\r\n\r\n"));
    EXPECT_EQ(sender.readToEnd(), "") << m_application.output();
    expectSaid("short push m1: 0 of 5 bytes\n", 0);
    EXPECT_EQ(m_application.output().find("\npush m1"), std::string::npos);
    expectPushIsAccepted();
}

TEST_P(ListeningExample, TakesAnyBytes) {
    start();
    expectAnyBytesAreAccepted();
    expectPushIsAccepted();
}

INSTANTIATE_TEST_SUITE_P(In, ListeningExample, ::testing::Values("cpp", "py", "sh"),
                         [](const auto& language) { return std::string(language.param); });

TEST_F(Examples, NoApplicationMakesAnObjectWhereNoAgentServes) {
    killAgent();
    for (const char* language : {"cpp", "py", "sh"}) {
        ASSERT_TRUE(m_application.start({listening(language), kExampleApp, ppgUrl()}));
        EXPECT_EQ(m_application.wait(0.5), -1) << language;
        EXPECT_NE(access(m_root.path("/pps/services/push/ipc").c_str(), F_OK), 0) << language;
        m_application.signal(SIGKILL);
        m_application.wait();
    }
}

// Whoever is told to open without making an object finds nothing to open any more.
TEST_F(Examples, OpeningInTwoStepsMakesNoObjectAlsoWhenTheAgentEndsBetweenThem) {
    const std::string ipc = m_root.path("/pps/services/push/ipc");
    for (const char* shell : {"/bin/sh", "/bin/bash"}) {
        ASSERT_TRUE(m_application.start({shell, "-c",
                                         "exec 4<\"$1?wait\" && echo opened $0 && sleep 0.5 && "
                                         "exec 3<>/proc/self/fd/4 && exit 0\n"
                                         "exit 1",
                                         shell, ipc}));
        ASSERT_TRUE(m_application.waitForOutput(std::string("opened ") + shell));
        killAgent();
        EXPECT_GT(m_application.wait(), 0) << shell;
        EXPECT_NE(access(ipc.c_str(), F_OK), 0) << shell;
        ASSERT_TRUE(startAgent());
    }
}

TEST_F(Examples, ApplicationsSayThatNobodyReadsWhatTheyWrite) {
    killAgent();
    for (const char* language : {"cpp", "py", "sh"}) {
        const std::size_t before = m_application.output().size();
        writeObject("/pps/services/push/ipc", "");
        ASSERT_TRUE(m_application.start({listening(language), kExampleApp, ppgUrl()}));
        EXPECT_TRUE(m_application.waitForOutput("an ordinary object lies ", before)) << language;
        m_application.signal(SIGKILL);
        m_application.wait();
        ASSERT_EQ(unlink(m_root.path("/pps/services/push/ipc").c_str()), 0);
    }
}

TEST_F(Examples, SenderInPythonTellsAcceptedFromClosed) {
    EXPECT_EQ(sendAndAnswer(example("send.py"), "acceptPush"), 0) << m_sender.output();
    EXPECT_EQ(m_sender.output(), "accepted\n");
    EXPECT_EQ(sendAndAnswer(example("send.py"), "rejectPush"), 1) << m_sender.output();
    EXPECT_EQ(m_sender.output(), "accepted\nclosed without an answer\n");
}

TEST_F(Examples, SenderWithNcTellsAcceptedFromClosed) {
    EXPECT_EQ(sendAndAnswer(example("send_nc.sh"), "acceptPush"), 0) << m_sender.output();
    EXPECT_EQ(m_sender.output(), "accepted\n");
    EXPECT_EQ(sendAndAnswer(example("send_nc.sh"), "rejectPush"), 1) << m_sender.output();
    EXPECT_EQ(m_sender.output(), "accepted\nclosed without an answer\n");
}

TEST_F(Examples, SenderInBashTellsAcceptedFromClosed) {
    EXPECT_EQ(sendAndAnswer(example("send.bash"), "acceptPush"), 0) << m_sender.output();
    EXPECT_EQ(m_sender.output(), "accepted\n");
    EXPECT_EQ(sendAndAnswer(example("send.bash"), "rejectPush"), 1) << m_sender.output();
    EXPECT_EQ(m_sender.output(), "accepted\nclosed without an answer\n");
}
