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

TEST_F(Examples, ApplicationInCppAcceptsAPush) {
    startApplication(builtProgram("example_listen"));
    expectPushIsAccepted();
    m_application.signal(SIGTERM);
    EXPECT_EQ(m_application.wait(), 0);
}

TEST_F(Examples, ApplicationInPythonAcceptsAPush) {
    startApplication(example("listen.py"));
    expectPushIsAccepted();
}

TEST_F(Examples, ApplicationInCppTakesAnyBytes) {
    startApplication(builtProgram("example_listen"));
    expectAnyBytesAreAccepted();
    expectPushIsAccepted();
}

TEST_F(Examples, ApplicationInPythonTakesAnyBytes) {
    startApplication(example("listen.py"));
    expectAnyBytesAreAccepted();
    expectPushIsAccepted();
}

TEST_F(Examples, ApplicationInShellTakesAnyBytes) {
    startApplication(example("listen.sh"));
    expectAnyBytesAreAccepted();
    expectPushIsAccepted();
}

TEST_F(Examples, ApplicationInPythonStartsOverWithANewAgent) {
    startApplication(example("listen.py"));
    killAgent();
    ASSERT_TRUE(m_application.waitForOutput("waiting for the agent"));
    const std::size_t before = m_application.output().size();
    ASSERT_TRUE(startAgent());
    ASSERT_TRUE(m_application.waitForOutput(std::string("channel ") + kPin, before));
    expectPushIsAccepted();
}

TEST_F(Examples, ApplicationInShellAcceptsAPushAndEndsWithTheAgent) {
    startApplication(example("listen.sh"));
    expectPushIsAccepted();
    killAgent();
    EXPECT_EQ(m_application.wait(), 3);
    EXPECT_NE(m_application.output().find("the agent went away"), std::string::npos);
}

TEST_F(Examples, ApplicationInShellSaysThatThereIsNoAgent) {
    killAgent();
    ASSERT_TRUE(m_application.start({example("listen.sh"), kExampleApp, ppgUrl()}));
    EXPECT_EQ(m_application.wait(), 3);
    EXPECT_NE(m_application.output().find("no agent serves"), std::string::npos);
}

TEST_F(Examples, NoApplicationMakesAnObjectWhereNoAgentServes) {
    killAgent();
    for (const std::string& program :
         {builtProgram("example_listen"), example("listen.py"), example("listen.sh")}) {
        ASSERT_TRUE(m_application.start({program, kExampleApp, ppgUrl()}));
        EXPECT_EQ(m_application.wait(0.5), program.ends_with(".sh") ? 3 : -1) << program;
        EXPECT_NE(access(m_root.path("/pps/services/push/ipc").c_str(), F_OK), 0) << program;
        if (m_application.isRunning()) {
            m_application.signal(SIGKILL);
            m_application.wait();
        }
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
    for (const std::string& program : {example("listen.py"), example("listen.sh")}) {
        const std::size_t before = m_application.output().size();
        writeObject("/pps/services/push/ipc", "");
        ASSERT_TRUE(m_application.start({program, kExampleApp, ppgUrl()}));
        EXPECT_TRUE(m_application.waitForOutput("an ordinary object lies in ", before)) << program;
        EXPECT_EQ(m_application.wait(0.5), program.ends_with(".sh") ? 3 : -1) << program;
        if (m_application.isRunning()) {
            m_application.signal(SIGKILL);
            m_application.wait();
        }
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
