// quilctl as people run it, against a played agent on a live mount: every verb, option and exit
// status.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "tests/integration/served_agent.hpp"
#include "tests/integration/tool_process.hpp"
#include "tests/support/ppsd_mount.hpp"

namespace {

using Words = std::vector<std::string>;

class Quilctl : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
        ASSERT_TRUE(m_ppsd.start());
        m_agent.emplace(m_ppsd);
    }

    ToolRun run(const Words& words) { return runTool(m_root.path(), "quilctl", words); }

    // Starts "listen com.app" with more options and waits until the channel is open.
    void listen(const Words& more) {
        Words words = {"listen", "com.app", "--ppg", "http://ppg"};
        words.insert(words.end(), more.begin(), more.end());
        m_listener.emplace(m_root.path(), "quilctl", words);
        m_agent->take("createChannel");
        const bool isJson = std::find(more.begin(), more.end(), "--json") != more.end();
        ASSERT_TRUE(m_listener->waitFor(isJson ? "\"channel\"" : "channel open"))
            << m_listener->output << m_listener->error;
    }

    std::string contentOf(const std::string& name) {
        std::ifstream file(m_root.path("/" + name));
        std::ostringstream content;
        content << file.rdbuf();
        return file ? content.str() : "no such file";
    }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
    std::optional<ServedAgent> m_agent;
    std::optional<ToolProcess> m_listener;
};

constexpr const char* kAnnouncedFive = "\"Content-Length\":\" 5\"";

// An answer to "queryChannel": a channel on whose port nobody listens.
std::string deafChannel(const std::string& port) {
    return R"(dat:json:{"registered":1,"listening":0,"port":)" + port +
           R"(,"token":"2a3b","ppgUrl":"http://ppg"})" + "\n";
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Messages are broken into lines for the terminal; this undoes it.
std::string joined(const std::string& text) {
    std::string line;
    for (const char byte : text) {
        const bool isBlank = byte == ' ' || byte == '\n';
        if (!isBlank) {
            line += byte;
        } else if (!line.empty() && line.back() != ' ') {
            line += ' ';
        }
    }
    return line;
}

}  // namespace

// --- One verb per request ------------------------------------------------------------------------

TEST_F(Quilctl, CreateSessionAsksForOne) {
    const ToolRun result = run({"create-session", "com.app"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_TRUE(contains(result.output, "com.app: session created")) << result.output;
    EXPECT_EQ(m_agent->take("createSession").msg, "createSession");
}

TEST_F(Quilctl, CreateChannelShowsTheToken) {
    const ToolRun result = run({"create-channel", "com.app", "--ppg", "http://ppg"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.output, "com.app: channel created, token 2a3b\n");
    EXPECT_EQ(m_agent->take("createChannel").argument, "http://ppg");
}

TEST_F(Quilctl, ChannelWithoutTokenIsRefused) {
    m_agent->answerWith("createChannel", "dat:json:{\"token\":\"\"}\n");
    const ToolRun result = run({"create-channel", "com.app", "--ppg", "http://ppg"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(joined(result.error), "(code -5)")) << result.error;
    EXPECT_TRUE(contains(joined(result.error), "next: quilctl trace LOG shows the reason"))
        << result.error;
}

TEST_F(Quilctl, DestroyChannelShowsCodeAndMeaningOfARefusal) {
    EXPECT_EQ(run({"destroy-channel", "com.app"}).status, 0);
    m_agent->answerWith("destroyChannel", "err:n:10106\n");
    const ToolRun result = run({"destroy-channel", "com.app"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(joined(result.error), "none was created")) << result.error;
    EXPECT_TRUE(contains(joined(result.error), "(code 10106)")) << result.error;
}

TEST_F(Quilctl, QueryChannelTellsOfOneThatStands) {
    m_agent->answerWith("queryChannel",
                        R"(dat:json:{"registered":1,"listening":1,"port":24010,"token":"2a3b",)"
                        R"("ppgUrl":"http://ppg"})"
                        "\n");
    const ToolRun result = run({"query-channel", "com.app"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(joined(result.output),
              "com.app: channel stands on port 24010, token 2a3b, push server http://ppg ");
    EXPECT_EQ(run({"query-channel", "com.app", "--json"}).output,
              R"({"request":"query-channel","app":"com.app","code":0,"registered":true,)"
              R"("listening":true,"port":24010,"token":"2a3b","ppgUrl":"http://ppg"})"
              "\n");
}

TEST_F(Quilctl, QueryChannelEndsWithOneWhereNoneStands) {
    ToolRun result = run({"query-channel", "com.app"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "com.app: no channel\n");
    m_agent->answerWith("queryChannel",
                        R"(dat:json:{"registered":1,"listening":0,"port":24010,"token":"2a3b",)"
                        R"("ppgUrl":"http://ppg"})"
                        "\n");
    result = run({"query-channel", "com.app"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(joined(result.output), "channel without a listener on port 24010"))
        << result.output;
    m_agent->answerWith("queryChannel", "err:n:10100\n");
    result = run({"query-channel", "com.app"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(joined(result.error), "(code 10100)")) << result.error;
}

TEST_F(Quilctl, QueryChannelSaysThatAChannelHasNoPort) {
    m_agent->answerWith("queryChannel", deafChannel("0"));
    ToolRun result = run({"query-channel", "com.app"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(joined(result.output),
              "com.app: channel without a port: the push server gave none (it ended the "
              "registration without one), so nobody can push; create the channel anew once the "
              "push server is mended ");
    m_agent->answerWith("queryChannel", deafChannel("70000"));
    result = run({"query-channel", "com.app"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(joined(result.output), "the push server gave 70000, which is not a port"))
        << result.output;
}

TEST_F(Quilctl, QueryChannelGivesUpSoonOnAnAgentThatDoesNotKnowIt) {
    m_agent->answerWith("queryChannel", "silent");
    EXPECT_EQ(run({"query-channel", "com.app", "--timeout", "0.2"}).status, 4);
}

TEST_F(Quilctl, RequestsGiveUpOnAnObjectServiceThatHangs) {
    kill(m_ppsd.pid(), SIGSTOP);
    for (const Words& words : {Words{"query-channel", "com.app", "--timeout", "0.2"},
                               Words{"create-session", "com.app", "--timeout", "0.2"}}) {
        const ToolRun result = run(words);
        EXPECT_EQ(result.status, 4) << words[0];
        EXPECT_TRUE(contains(joined(result.error), "the object service does not answer"))
            << result.error;
    }
    kill(m_ppsd.pid(), SIGCONT);
}

TEST_F(Quilctl, LaunchStringIsSetAndCleared) {
    EXPECT_EQ(run({"register-launch", "com.app", "app://x"}).output,
              "com.app: launch string set\n");
    EXPECT_EQ(m_agent->take("registerToLaunch").argument, "app://x");
    EXPECT_EQ(run({"unregister-launch", "com.app"}).output, "com.app: launch string cleared\n");
    EXPECT_EQ(m_agent->take("unregisterFromLaunch").msg, "unregisterFromLaunch");
}

TEST_F(Quilctl, AcceptAndRejectKeepTheLeadingBlankOfAnId) {
    EXPECT_EQ(run({"accept", "com.app", " m1"}).status, 0);
    EXPECT_EQ(m_agent->take("acceptPush").id, " m1");
    EXPECT_EQ(run({"reject", "com.app", " m2"}).status, 0);
    EXPECT_EQ(m_agent->take("rejectPush").id, " m2");
}

TEST_F(Quilctl, RequestsAsJsonAreOneObjectPerLine) {
    const auto channel =
        nlohmann::json::parse(run({"create-channel", "a", "--ppg", "u", "--json"}).output);
    EXPECT_EQ(channel["code"], 0);
    EXPECT_EQ(channel["token"], "2a3b");
    m_agent->answerWith("createSession", "err:n:500\n");
    const ToolRun refused = run({"create-session", "a", "--json"});
    EXPECT_EQ(refused.status, 1);
    const auto object = nlohmann::json::parse(refused.output);
    EXPECT_EQ(object["request"], "create-session");
    EXPECT_EQ(object["app"], "a");
    EXPECT_EQ(object["code"], 500);
    EXPECT_EQ(object["origin"], "agent");
    EXPECT_FALSE(object["next"].get<std::string>().empty());
}

TEST_F(Quilctl, UnansweredRequestTimesOutWithStatus4) {
    m_agent->answerWith("createSession", "silent");
    const ToolRun result = run({"create-session", "a", "--timeout", "0.2"});
    EXPECT_EQ(result.status, 4);
    EXPECT_TRUE(contains(joined(result.error), "did not answer in time")) << result.error;
}

TEST_F(Quilctl, MissingAgentIsStatus3) {
    m_agent.reset();
    for (const Words& words : {Words{"create-session", "a"}, Words{"accept", "a", "m"},
                               Words{"listen", "a", "--ppg", "u"}}) {
        const ToolRun result = run(words);
        EXPECT_EQ(result.status, 3) << words[0];
        EXPECT_TRUE(contains(joined(result.error), "no agent serves the push object"))
            << result.error;
        EXPECT_TRUE(contains(joined(result.error), "next: start quilagent")) << result.error;
    }
}

TEST_F(Quilctl, OrdinaryObjectInThePlaceOfTheAgentIsStatus3) {
    m_agent.reset();
    for (const Words& words :
         {Words{"create-session", "a"}, Words{"create-channel", "a", "--ppg", "u"},
          Words{"register-launch", "a", "x"}, Words{"unregister-launch", "a"},
          Words{"accept", "a", "m"}, Words{"reject", "a", "m"},
          Words{"listen", "a", "--ppg", "u"}}) {
        // As a shell's "<>" makes it.
        close(open(m_ppsd.path("/services/push/ipc").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
        const ToolRun result = run(words);
        EXPECT_EQ(result.status, 3) << words[0];
        EXPECT_EQ(result.output, "") << words[0];
        EXPECT_TRUE(contains(joined(result.error), "an ordinary object lies where the agent"))
            << result.error;
        EXPECT_TRUE(contains(joined(result.error), "next: remove it: ppsctl rm services/push/ipc"))
            << result.error;
        EXPECT_EQ(runTool(m_root.path(), "ppsctl", {"rm", "services/push/ipc"}).status, 0);
    }
}

TEST_F(Quilctl, ListenTakesWhatWaitsBeforeItReplacesTheChannelOfAnotherPushServer) {
    m_agent->answerWith("queryChannel",
                        R"(dat:json:{"registered":1,"listening":1,"port":1,"token":"2",)"
                        R"("ppgUrl":"http://other"})"
                        "\n");
    m_listener.emplace(m_root.path(), "quilctl",
                       Words{"listen", "com.app", "--ppg", "http://ppg", "--count", "1"});
    EXPECT_EQ(m_agent->take("createSession").msg, "createSession");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_agent->take("acceptPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 0) << m_listener->error;
    EXPECT_FALSE(contains(m_listener->output, "channel open")) << m_listener->output;
}

TEST_F(Quilctl, ListenKeepsAChannelThatStands) {
    m_agent->answerWith("queryChannel",
                        R"(dat:json:{"registered":1,"listening":1,"port":1,"token":"2",)"
                        R"("ppgUrl":"http://ppg"})"
                        "\n");
    m_listener.emplace(m_root.path(), "quilctl",
                       Words{"listen", "com.app", "--ppg", "http://ppg", "--count", "1"});
    ASSERT_TRUE(m_listener->waitFor("channel open")) << m_listener->error;
    m_agent->push("m1", "", false);
    EXPECT_EQ(m_listener->wait(), 0) << m_listener->error;
    EXPECT_EQ(m_agent->takeNow("createChannel").msg, "");
}

TEST_F(Quilctl, MissingObjectServiceIsStatus3) {
    m_agent.reset();
    m_ppsd.stop();
    const ToolRun result = run({"listen", "a", "--ppg", "u"});
    EXPECT_EQ(result.status, 3);
    EXPECT_TRUE(contains(joined(result.error), "the object service is not there")) << result.error;
    EXPECT_TRUE(contains(joined(result.error), "next: start ppsd")) << result.error;
}

// --- listen --------------------------------------------------------------------------------------

TEST_F(Quilctl, ListenShowsAPushAndAcceptsIt) {
    listen({"--count", "1"});
    m_agent->push(" m1", "aGVsbG8=", true);
    EXPECT_EQ(m_agent->take("acceptPush").id, " m1");
    EXPECT_EQ(m_listener->wait(), 0) << m_listener->error;
    EXPECT_TRUE(contains(m_listener->output,
                         "push ' m1', 5 bytes, sender waits\n"
                         "          A: 1\n"
                         "          | hello\n"
                         "          accepted\n"))
        << m_listener->output;
}

TEST_F(Quilctl, ListenWithAcceptAccepts) {
    listen({"--accept", "--count", "1"});
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_agent->take("acceptPush").id, "m1");
}

TEST_F(Quilctl, ListenWithRejectRejects) {
    listen({"--reject", "--count", "1"});
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_agent->take("rejectPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 0);
}

TEST_F(Quilctl, ListenRejectsAPushThatCameShort) {
    listen({"--count", "1"});
    m_agent->push("m1", "", true, kAnnouncedFive);
    EXPECT_EQ(m_agent->take("rejectPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 0);
    EXPECT_TRUE(contains(m_listener->output,
                         "push 'm1', 0 of 5 bytes, sender waits\n"
                         "          Content-Length: 5\n"
                         "          rejected (less data than its Content-Length says)\n"))
        << m_listener->output;
}

TEST_F(Quilctl, ListenToldToAcceptAcceptsAlsoAPushThatCameShort) {
    listen({"--accept", "--json", "--count", "1"});
    m_agent->push("m1", "aGk=", true, kAnnouncedFive);
    EXPECT_EQ(m_agent->take("acceptPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 0);
    EXPECT_TRUE(contains(m_listener->output, R"("bytes":2,"announced":5,"short":true,)"))
        << m_listener->output;
}

TEST_F(Quilctl, ListenEndsAfterTheCount) {
    listen({"--count", "2"});
    m_agent->push("m1", "", false);
    m_agent->push("m2", "", false);
    EXPECT_EQ(m_listener->wait(), 0);
    EXPECT_TRUE(contains(m_listener->output, "push 'm2'")) << m_listener->output;
}

TEST_F(Quilctl, ListenWithAskDoesWhatIsTyped) {
    listen({"--ask", "--count", "2"});
    m_agent->push("m1", "", true);
    ASSERT_TRUE(m_listener->waitFor("accept push 'm1'? [y/n]", true)) << m_listener->error;
    m_listener->type("what?\n");
    m_listener->type("n\n");
    EXPECT_EQ(m_agent->take("rejectPush").id, "m1");
    m_agent->push("m2", "", true);
    ASSERT_TRUE(m_listener->waitFor("accept push 'm2'? [y/n]", true)) << m_listener->error;
    m_listener->type("yes\n");
    EXPECT_EQ(m_agent->take("acceptPush").id, "m2");
    EXPECT_EQ(m_listener->wait(), 0);
}

TEST_F(Quilctl, ListenWithAskRejectsAtTheEndOfInput) {
    listen({"--ask", "--count", "1"});
    m_agent->push("m1", "", true);
    ASSERT_TRUE(m_listener->waitFor("accept push 'm1'? [y/n]", true));
    m_listener->closeInput();
    EXPECT_EQ(m_agent->take("rejectPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 0);
}

TEST_F(Quilctl, ListenWithExecAnswersByItsExitStatus) {
    const std::string file = m_root.path("/seen");
    listen(
        {"--exec",
         "cat >> " + file + "; echo \"$QUIL_PUSH_ID\" >> " + file + "; test \"$QUIL_PUSH_ID\" = m1",
         "--count", "2"});
    m_agent->push("m1", "aGVsbG8=", true);
    EXPECT_EQ(m_agent->take("acceptPush").id, "m1");
    m_agent->push("m2", "", true);
    EXPECT_EQ(m_agent->take("rejectPush").id, "m2");
    EXPECT_EQ(m_listener->wait(), 0);
    EXPECT_EQ(contentOf("seen"), "hellom1\nm2\n");
    EXPECT_TRUE(contains(m_listener->output, "rejected (the command ended with status 1)"))
        << m_listener->output;
}

TEST_F(Quilctl, ListenEndsACommandThatTakesTooLong) {
    listen({"--exec", "sleep 60", "--timeout", "3"});
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_listener->wait(), 4);
    EXPECT_EQ(m_agent->take("rejectPush").id, "m1");
    EXPECT_TRUE(contains(m_listener->output, "the command did not end in time"))
        << m_listener->output;
}

TEST_F(Quilctl, ListenSavesBeforeItAccepts) {
    listen({"--save", m_root.path("/pushes"), "--count", "1"});
    m_agent->push("../m1", "AAH/", true, "\"A\":\" 1\",\"A\":\" 2\"");
    EXPECT_EQ(m_agent->take("acceptPush").id, "../m1");
    EXPECT_EQ(contentOf("pushes/%2E.%2Fm1.data"), std::string("\0\1\xff", 3));
    EXPECT_EQ(contentOf("pushes/%2E.%2Fm1.headers"), "A: 1\nA: 2\n");
    EXPECT_EQ(m_listener->wait(), 0);
}

TEST_F(Quilctl, ListenRejectsWhatItCannotSave) {
    listen({"--save", m_root.path("/pushes")});
    std::filesystem::remove_all(m_root.path("/pushes"));
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_agent->take("rejectPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 1);
    EXPECT_TRUE(contains(m_listener->error, "cannot write to")) << m_listener->error;
}

TEST_F(Quilctl, ListenWithASaveFolderThatCannotBeIsUsage) {
    EXPECT_EQ(run({"listen", "a", "--ppg", "u", "--save", m_root.path("/no/such")}).status, 2);
}

TEST_F(Quilctl, ListenAsJsonIsOneObjectPerLine) {
    listen({"--json", "--count", "1"});
    m_agent->push(" m1", "aGk=", true, "\"A\":\" 1\",\"A\":\" 2\"");
    EXPECT_EQ(m_listener->wait(), 0);
    std::istringstream lines(m_listener->output);
    std::vector<nlohmann::json> events;
    for (std::string line; std::getline(lines, line);) {
        events.push_back(nlohmann::json::parse(line));
    }
    ASSERT_EQ(events.size(), 4U) << m_listener->output;
    EXPECT_EQ(events[0]["event"], "connected");
    EXPECT_EQ(events[1]["event"], "channel");
    EXPECT_EQ(events[1]["token"], "2a3b");
    EXPECT_EQ(events[2]["event"], "push");
    EXPECT_EQ(events[2]["id"], " m1");
    EXPECT_EQ(events[2]["text"], "hi");
    EXPECT_EQ(events[2]["headers"][1][1], " 2");
    EXPECT_EQ(events[3]["event"], "accepted");
}

TEST_F(Quilctl, ListenGivesUpAfterTheTimeoutAndSaysThatNoPushCame) {
    listen({"--timeout", "1.5"});
    EXPECT_EQ(m_listener->wait(), 4);
    EXPECT_EQ(joined(m_listener->error), "quilctl: listen: no push came in 1.5 seconds ");
}

TEST_F(Quilctl, ListenThatEndsByTheTimeoutBehindAPushSaysHowManyCame) {
    listen({"--timeout", "2", "--json"});
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_agent->take("acceptPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 4);
    EXPECT_EQ(joined(m_listener->error), "quilctl: listen: 1 push came in 2 seconds ");
    const std::string last = m_listener->output.substr(m_listener->output.rfind("{\"event"));
    EXPECT_EQ(last,
              R"({"event":"failure","what":"listen","code":-3,"words":"1 push came in 2 seconds"})"
              "\n");
}

TEST_F(Quilctl, ListenWithoutAChannelAtTheTimeoutAdvisesToLookAtTheAgent) {
    m_agent->answerWith("createChannel", "silent");
    const ToolRun result = run({"listen", "a", "--ppg", "u", "--timeout", "1"});
    EXPECT_EQ(result.status, 4);
    EXPECT_TRUE(contains(joined(result.error), "the time given with --timeout is over"))
        << result.error;
}

TEST_F(Quilctl, ListenWarnsOfAChannelThatNobodyCanPushTo) {
    m_agent->answerWith("queryChannel", deafChannel("0"));
    listen({});
    ASSERT_TRUE(m_listener->waitFor("without a port")) << m_listener->output;
    m_listener.reset();
    m_agent->answerWith("queryChannel", deafChannel("24010"));
    listen({"--json"});
    ASSERT_TRUE(
        m_listener->waitFor("{\"event\":\"warning\",\"words\":\"channel without a listener"))
        << m_listener->output;
}

TEST_F(Quilctl, ListenEndsWhenTheFirstChannelIsRefused) {
    m_agent->answerWith("createChannel", "");
    const ToolRun result = run({"listen", "a", "--ppg", "u"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(joined(result.error), "(code -5)")) << result.error;
}

TEST_F(Quilctl, ListenSurvivesARestartOfTheAgent) {
    listen({"--count", "1"});
    m_agent.reset();
    ASSERT_TRUE(m_listener->waitFor("went away", true)) << m_listener->error;
    m_agent.emplace(m_ppsd);
    EXPECT_EQ(m_agent->take("createSession").msg, "createSession");
    EXPECT_EQ(m_agent->take("createChannel").msg, "createChannel");
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_agent->take("acceptPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 0);
}

TEST_F(Quilctl, ListenSurvivesARestartOfTheObjectService) {
    listen({"--count", "1"});
    m_agent.reset();
    ASSERT_TRUE(m_ppsd.restart());
    m_agent.emplace(m_ppsd);
    EXPECT_EQ(m_agent->take("createChannel").msg, "createChannel");
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_agent->take("acceptPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 0);
}

TEST_F(Quilctl, ListenSurvivesACrashOfTheObjectService) {
    listen({"--count", "1"});
    m_ppsd.kill();
    m_agent.reset();
    ASSERT_TRUE(m_ppsd.start());
    m_agent.emplace(m_ppsd);
    EXPECT_EQ(m_agent->take("createChannel").msg, "createChannel");
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_agent->take("acceptPush").id, "m1");
    EXPECT_EQ(m_listener->wait(), 0);
}

TEST_F(Quilctl, ListenTellsOfASimChangeThatIsAddressedToNobody) {
    listen({"--count", "1"});
    m_agent->send("msg::onSimChange\nid::\n");
    ASSERT_TRUE(m_listener->waitFor("another SIM")) << m_listener->output;
    EXPECT_EQ(m_agent->take("createChannel").msg, "createChannel");
}

TEST_F(Quilctl, ListenMarksAPushThatCameBefore) {
    listen({"--count", "2"});
    m_agent->push("m1", "", false);
    m_agent->push("m1", "", false);
    EXPECT_EQ(m_listener->wait(), 0);
    EXPECT_TRUE(contains(m_listener->output, "a push with this id came before"));
}

TEST_F(Quilctl, ListenTakesAPushAsLongAsTheAgentCanSend) {
    listen({"--json", "--count", "1"});
    std::string base64;
    for (int i = 0; i < 3839; ++i) {
        base64 += "QUFB";  // AAA
    }
    m_agent->push("m1", base64, false, "\"H\":\"" + std::string(200000, 'h') + "\"");
    EXPECT_EQ(m_listener->wait(), 0);
    EXPECT_TRUE(contains(m_listener->output, "\"bytes\":11517"));
}

TEST_F(Quilctl, ListenEndsWhenNobodyReadsItsOutput) {
    listen({});
    m_listener->closeOutput();
    m_agent->push("m1", "", false);
    EXPECT_EQ(m_listener->wait(), 1);
}

TEST_F(Quilctl, OutputIntoAPipeHasNoColours) {
    listen({"--count", "1"});
    m_agent->push("m1", "", true);
    EXPECT_EQ(m_listener->wait(), 0);
    EXPECT_FALSE(contains(m_listener->output, "\x1b"));
}

// --- What needs no agent -------------------------------------------------------------------------

namespace {

ToolRun runAlone(const Words& words) {
    const ScratchRoot root;
    return runTool(root.path(), "quilctl", words);
}

}  // namespace

TEST(QuilctlUsage, WrongCommandLinesAreStatus2) {
    const std::vector<Words> wrong = {{},
                                      {"no-such-verb"},
                                      {"listen"},
                                      {"listen", "a"},
                                      {"listen", "", "--ppg", "u"},
                                      {"listen", "a", "--ppg", ""},
                                      {"listen", "a", "--ppg", "u", "--accept", "--reject"},
                                      {"listen", "a", "--ppg", "u", "--accept", "--ask"},
                                      {"listen", "a", "--ppg", "u", "--exec", "true", "--reject"},
                                      {"listen", "a", "--ppg", "u", "--count", "0"},
                                      {"listen", "a", "--ppg", "u", "--timeout", "-1"},
                                      {"listen", "a", "--ppg", "u", "--timeout", "soon"},
                                      {"create-session"},
                                      {"create-channel", "a"},
                                      {"register-launch", "a"},
                                      {"register-launch", "a", ""},
                                      {"accept", "a"},
                                      {"reject", "a", ""},
                                      {"create-session", "a", "--timeout", "0"},
                                      {"create-session", "\xff"},
                                      {"register-launch", "a", std::string(9000, 'x')},
                                      {"codes", "many"}};
    for (const Words& words : wrong) {
        const ToolRun result = runAlone(words);
        EXPECT_EQ(result.status, 2) << ::testing::PrintToString(words);
        EXPECT_FALSE(result.error.empty()) << ::testing::PrintToString(words);
    }
}

TEST(QuilctlUsage, HelpFitsInto80Columns) {
    const std::vector<Words> pages = {{"--help"},
                                      {"listen", "--help"},
                                      {"create-session", "--help"},
                                      {"create-channel", "--help"},
                                      {"destroy-channel", "--help"},
                                      {"query-channel", "--help"},
                                      {"register-launch", "--help"},
                                      {"unregister-launch", "--help"},
                                      {"accept", "--help"},
                                      {"reject", "--help"},
                                      {"codes", "--help"},
                                      {"codes"}};
    for (const Words& page : pages) {
        const ToolRun result = runAlone(page);
        EXPECT_EQ(result.status, 0);
        std::istringstream lines(result.output);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80U) << line;
        }
    }
}

TEST(QuilctlCodes, ExplainsEachCode) {
    const ToolRun all = runAlone({"codes"});
    for (const char* code : {"500", "10002", "10004", "10100", "10101", "10102", "10103", "10104",
                             "10106", "10107", "10108", "10109", "10110", "-5"}) {
        EXPECT_TRUE(contains(all.output, std::string(code) + "  ")) << code;
    }
    const ToolRun one = runAlone({"codes", "10107"});
    EXPECT_TRUE(contains(one.output, "no usable port")) << one.output;
    EXPECT_FALSE(contains(one.output, "10108"));
    EXPECT_TRUE(contains(runAlone({"codes", "4711"}).output, "push server refused"));
    EXPECT_TRUE(contains(runAlone({"codes", "-5"}).output, "without a token"));
}

TEST(QuilctlCodes, AreToldApartByWhereTheyWereSeen) {
    std::istringstream lines(runAlone({"codes", "7", "--json"}).output);
    std::map<std::string, std::string> origins;
    for (std::string line; std::getline(lines, line);) {
        const auto object = nlohmann::json::parse(line);
        EXPECT_EQ(object["code"], 7);
        origins[object["seen"]] = object["origin"];
    }
    EXPECT_EQ(origins, (std::map<std::string, std::string>{
                           {"err", "push server"}, {"rc", "push server"}, {"libcurl", "libcurl"}}));
    const std::string text = runAlone({"codes", "7"}).output;
    EXPECT_TRUE(contains(text, "In err of a reply")) << text;
    EXPECT_TRUE(contains(text, "Behind rc=")) << text;
    EXPECT_TRUE(contains(text, "HTTP Transport failure")) << text;
}

TEST(QuilctlCodes, SayThatTheyWantANumber) {
    for (const char* word : {"foo", "7x", "99999999999", ""}) {
        const ToolRun run = runAlone({"codes", word});
        EXPECT_EQ(run.status, 2) << word;
        EXPECT_TRUE(contains(run.error, "must be a whole number")) << run.error;
    }
}

TEST(QuilctlCodes, AsJsonAreOneObjectPerLine) {
    std::istringstream lines(runAlone({"codes", "500", "--json"}).output);
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    const auto object = nlohmann::json::parse(line);
    EXPECT_EQ(object["code"], 500);
    EXPECT_EQ(object["seen"], "err");
    EXPECT_EQ(object["origin"], "agent");
}
