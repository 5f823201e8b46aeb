// What an application with a client library lives through, on the whole stack: the same list for
// the library in C++ and for the one in Python.

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>

#include "tests/integration/device.hpp"
#include "tests/integration/tool_process.hpp"

namespace {

class ClientScenario : public Device, public ::testing::WithParamInterface<const char*> {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_NO_FATAL_FAILURE(startServer());
        ASSERT_TRUE(startAgent({}));
    }

    void TearDown() override {
        if (HasFailure() && m_application != nullptr) {
            std::fprintf(stderr, "---- the application told (last of all)\n%s----\n%s----\n",
                         m_application->output.c_str(), m_application->error.c_str());
        }
        m_application.reset();
        Device::TearDown();
    }

    void startApplication() {
        const std::string python =
            std::string(std::getenv("QUIL_SOURCE")) + "/tests/integration/scenario/application.py";
        m_application = std::make_unique<ToolProcess>(
            m_root.path(), GetParam() == std::string("Python") ? python : "scenario_application",
            std::vector<std::string>{kApp, ppgUrl()});
    }

    void startWithChannel() {
        ASSERT_NO_FATAL_FAILURE(startApplication());
        expect("connection 0");
        expect(kChannelStands);
        ASSERT_FALSE(HasFailure());
    }

    // Waits for the next such line; what came before it is let go.
    void expect(const std::string& line) {
        std::string& output = m_application->output;
        ASSERT_TRUE(m_application->waitFor(line + "\n")) << "not told: " << line;
        output.erase(0, output.find(line + "\n") + line.size() + 1);
    }
    void tell(const std::string& command) {
        m_application->type(command + "\n");
        expect("done " + command.substr(0, command.find(' ')));
    }

    // Sends a push and expects the application to show it and its sender to be told `isAccepted`.
    void expectAnswered(const std::string& id, bool isAccepted) {
        const PushSender sender(portOf(kApp));
        ASSERT_TRUE(sender.send(makePush(" " + id, "hello")));
        expect(shown(id));
        EXPECT_EQ(isAcknowledgement(sender.readToEnd()), isAccepted);
    }
    static std::string shown(const std::string& id, const std::string& more = "") {
        return "push  " + id + " waits" + more +
               " [hello] Content-Length= 5 Push-Message-ID= " + id;
    }

    void killServer() {
        m_server->signal(SIGKILL);
        m_server->wait();
    }
    // Exchanges that the push server was asked for: " register " or " deregister ".
    std::size_t countAsked(const std::string& operation) const {
        const std::string log = serverLog();
        const std::string line = operation + "step 1";
        std::size_t count = 0;
        for (std::size_t at = log.find(line); at != std::string::npos;
             at = log.find(line, at + 1)) {
            ++count;
        }
        return count;
    }
    // Wait until what the agent saves holds `text`, or does so no longer.
    bool isSaved(const std::string& text) const {
        return waitUntil([&] { return savedSessions().find(text) != std::string::npos; });
    }
    bool isNotSaved(const std::string& text) const {
        return waitUntil([&] { return savedSessions().find(text) == std::string::npos; });
    }
    std::string savedSessions() const { return readObject("/pps/services/push/quilagent"); }

    const std::string kChannelStands = std::string("channel 0 ") + kPin;
    std::unique_ptr<ToolProcess> m_application;
};

}  // namespace

TEST_P(ClientScenario, PushIsDeliveredAndAccepted) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    expectAnswered("m1", true);
}

TEST_P(ClientScenario, PushIsRejected) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    tell("answer reject");
    const PushSender sender(portOf(kApp));
    ASSERT_TRUE(sender.send(makePush(" m1", "hello")));
    expect(shown("m1"));
    EXPECT_EQ(sender.readToEnd(), "") << "closed without a byte";
}

TEST_P(ClientScenario, AnswerComesLater) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    tell("answer later");
    const PushSender first(portOf(kApp));
    const PushSender second(portOf(kApp));
    ASSERT_TRUE(first.send(makePush(" m1", "hello")));
    expect(shown("m1"));
    ASSERT_TRUE(second.send(makePush(" m2", "hello")));
    expect(shown("m2"));
    EXPECT_EQ(first.readToEnd(0.3), "(still open)");
    tell("reject  m2");
    EXPECT_EQ(second.readToEnd(), "");
    tell("accept  m1");
    EXPECT_TRUE(isAcknowledgement(first.readToEnd()));
}

TEST_P(ClientScenario, DuplicateIsKnownAlsoAfterANewAgent) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    expectAnswered("m1", true);
    ASSERT_TRUE(isSaved(kApp));
    killAgent();
    expect("connection -4");
    ASSERT_TRUE(startAgent({}));
    expect(kChannelStands);
    const PushSender sender(portOf(kApp));
    ASSERT_TRUE(sender.send(makePush(" m1", "hello")));
    expect(shown("m1", " duplicate"));
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
}

TEST_P(ClientScenario, NoPushIsLostThatWaitsWhileTheAgentRestarts) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    const int port = portOf(kApp);
    ASSERT_TRUE(isSaved(kApp));
    m_application->signal(SIGSTOP);
    killAgent();
    ASSERT_TRUE(startAgent({}));
    std::vector<std::unique_ptr<PushSender>> senders;
    for (int i = 0; i < 5; ++i) {
        senders.push_back(std::make_unique<PushSender>(port));
        ASSERT_TRUE(senders.back()->send(makePush(" m" + std::to_string(i), "hello")));
    }
    m_application->signal(SIGCONT);
    expect("connection -4");
    expect("connection 0");
    // The channel is told before or after them: all there is to know is that it was not made anew.
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(m_application->waitFor(shown("m" + std::to_string(i)) + "\n")) << i;
        EXPECT_TRUE(isAcknowledgement(senders[static_cast<std::size_t>(i)]->readToEnd())) << i;
    }
    expect(kChannelStands);
    EXPECT_EQ(portOf(kApp), port);
    EXPECT_EQ(countAsked(" register "), 1U);
    expectAnswered("after", true);
}

TEST_P(ClientScenario, ObjectServiceIsKilledAndRestarted) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    for (const char* id : {"m1", "m2"}) {
        m_ppsd->kill();
        expect("connection -4");
        expect("connection -1");
        ASSERT_TRUE(m_ppsd->start());
        expect("connection 0");
        expect(kChannelStands);
        expectAnswered(id, true);
    }
    EXPECT_EQ(countAsked(" register "), 1U);
}

TEST_P(ClientScenario, ObjectServiceAndAgentComeLate) {
    killAgent();
    ASSERT_EQ(m_ppsd->stop(), 0);
    ASSERT_NO_FATAL_FAILURE(startApplication());
    expect("connection -1");
    ASSERT_TRUE(m_ppsd->start());
    expect("connection -2");
    ASSERT_TRUE(startAgent({}));
    expect("connection 0");
    expect(kChannelStands);
    expectAnswered("m1", true);
}

TEST_P(ClientScenario, PushServerIsAwayAtStart) {
    killServer();
    ASSERT_NO_FATAL_FAILURE(startApplication());
    expect("connection 0");
    expect("channel -5 ");
    startServer();
    expect(kChannelStands);
    expectAnswered("m1", true);
}

TEST_P(ClientScenario, ChannelThatStandsIsKeptByTheNextProcess) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    tell("stop");
    EXPECT_EQ(m_application->wait(), 0);
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    EXPECT_EQ(countAsked(" register "), 1U);
    expectAnswered("m1", true);
}

TEST_P(ClientScenario, ChangedSimIsToldAndTheChannelMadeAnew) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    ASSERT_TRUE(isSaved(kApp));
    killAgent();
    setSim("001010000000002");
    // Slow, so that the application is back before the old channel is gone.
    startServer({"--delay", "2", "--at-step", "2"});
    ASSERT_TRUE(startAgent({}));
    expect("connection 0");
    EXPECT_TRUE(m_application->waitFor("sim change\n"));
    expect(kChannelStands);
    EXPECT_EQ(countAsked(" deregister "), 1U);
    expectAnswered("m1", true);
}

TEST_P(ClientScenario, BytesThatAreNoUtf8DoNotHurt) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    const std::string kReplaced = "\xef\xbf\xbd";  // what the agent makes of them in a header
    const std::pair<std::string, std::string> ids[] = {
        {"\xff\xfe", kReplaced + kReplaced},
        {"\xc3", kReplaced},
        {"a\x0b\x1c\xc2\x85\xe2\x80\xa8z", "a\x0b\x1c\xc2\x85\xe2\x80\xa8z"},
        {"back\\slash", "back\\slash"}};
    for (const auto& [id, asHeader] : ids) {
        const PushSender sender(portOf(kApp));
        ASSERT_TRUE(
            sender.send("POST / HTTP/1.1\r\nContent-Length: 2\r\nX: \xe9\r\n"
                        "Push-Message-ID: " +
                        id + "\r\n\r\n\xff\xfe"));
        expect("push  " + id + " waits [\xff\xfe] Content-Length= 2 X= " + kReplaced +
               " Push-Message-ID= " + asHeader);
        EXPECT_TRUE(isAcknowledgement(sender.readToEnd())) << "it went back as it came";
    }
}

TEST_P(ClientScenario, DestroyedChannelStaysAwayUntilItIsAskedFor) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    const int port = portOf(kApp);
    tell("destroy");
    expect("destroyed 0");
    EXPECT_FALSE(isListening(port));
    ASSERT_TRUE(isNotSaved(kApp));
    killAgent();
    expect("connection -4");
    ASSERT_TRUE(startAgent({}));
    expect("connection 0");
    EXPECT_FALSE(m_application->waitFor("channel", false, std::chrono::milliseconds(500)));
    tell("create");
    expect(kChannelStands);
    expectAnswered("m1", true);
}

TEST_P(ClientScenario, LaunchStringIsKeptAndTakenBack) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    tell("launch app://news \xc3\xb6");
    expect("launch 0");
    EXPECT_TRUE(isSaved("app://news \xc3\xb6"));
    tell("unlaunch");
    expect("launch 0");
    EXPECT_TRUE(isNotSaved("app://"));
    m_application->type("launch \n");
    expect("refused -6");
}

TEST_P(ClientScenario, WhatAHandlerThrowsIsToldAndTheNextPushServed) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    tell("answer throw");
    expectAnswered("m1", false);
    expect("thrown no disk");
    tell("answer accept");
    expectAnswered("m2", true);
}

TEST_P(ClientScenario, StopsWhenItIsToldAndOnASignal) {
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    tell("stop");
    EXPECT_EQ(m_application->wait(), 0);
    ASSERT_NO_FATAL_FAILURE(startWithChannel());
    m_application->signal(SIGTERM);
    EXPECT_EQ(m_application->wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(OfBothLibraries, ClientScenario, ::testing::Values("Cpp", "Python"),
                         [](const auto& library) { return std::string(library.param); });
