// One request, one answer.

#include "quilclient/request.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <thread>

#include "tests/unit/client/fake_agent.hpp"

using namespace quilclient;
using namespace std::chrono_literals;

namespace {

// Answers the first request from a thread of its own, since sendRequest() waits.
Reply requestAnsweredWith(const std::string& text, Verb verb = Verb::CreateChannel) {
    FakeAgent agent;
    agent.openError = 0;
    const auto open = agent.opener();
    std::thread answering;
    const auto openAndAnswer = [&] {
        const int descriptor = open();
        answering = std::thread([&] {
            for (int i = 0; i < 1000 && agent.take().msg.empty(); ++i) {
                std::this_thread::sleep_for(2ms);
            }
            if (text.empty()) {
                agent.hangUp();
            } else {
                agent.send(text);
            }
        });
        return descriptor;
    };
    const Reply reply = sendRequest({verb, "com.app", "http://x"}, 5s, openAndAnswer);
    answering.join();
    return reply;
}

}  // namespace

TEST(OneRequest, GivesTheToken) {
    const Reply reply = requestAnsweredWith(
        "@ipc\nmsg::onCreateChannelComplete\nid::1\ndat:json:{\"token\":\"2a\"}\n");
    EXPECT_TRUE(reply.result.ok()) << reply.result.words;
    EXPECT_EQ(reply.token, "2a");
}

TEST(OneRequest, GivesTheCodeOfARefusal) {
    EXPECT_EQ(requestAnsweredWith("@ipc\nid::1\nerr:n:500\n", Verb::RegisterToLaunch).result.code,
              500);
}

TEST(OneRequest, SkipsWhatIsForOthers) {
    const Reply reply = requestAnsweredWith(
        "@ipc\nmsg::onSimChange\nid::\n@ipc\nmsg::pushNotification\nid::1\ndat:json:{\"data\":"
        "\"\"}\n@ipc\nmsg::onCreateChannelComplete\nid::1\ndat:json:{\"token\":\"x\"}\n");
    EXPECT_EQ(reply.token, "x");
}

TEST(OneRequest, ComingBackAsItWasSentIsNoAgent) {
    for (const auto& [verb, name] : {std::pair{Verb::CreateSession, "createSession"},
                                     {Verb::CreateChannel, "createChannel"},
                                     {Verb::RegisterToLaunch, "registerToLaunch"}}) {
        EXPECT_EQ(
            requestAnsweredWith(std::string("@ipc\nmsg::") + name + "\nid::1\n", verb).result.code,
            kObjectInTheWay)
            << name;
    }
}

TEST(OneRequest, TakesNoAnswerOfAnotherName) {
    const Reply reply = requestAnsweredWith(
        "@ipc\nmsg::onCreateSessionComplete\nid::1\n@ipc\nid::1\n@ipc\nmsg::onSimChange\nid::1\n"
        "@ipc\nmsg::onCreateChannelComplete\nid::1\ndat:json:{\"token\":\"x\"}\n");
    EXPECT_EQ(reply.token, "x");
}

TEST(OneRequest, TellsThatTheAgentWentAway) {
    EXPECT_EQ(requestAnsweredWith("").result.code, kConnectionLost);
    EXPECT_EQ(requestAnsweredWith("-@ipc\n").result.code, kConnectionLost);
}

TEST(OneRequest, TimesOut) {
    FakeAgent agent;
    EXPECT_EQ(sendRequest({Verb::CreateSession, "com.app", ""}, 20ms, agent.opener()).result.code,
              kTimedOut);
}

TEST(OneRequest, ThatIsNeverAnsweredReturnsAtOnce) {
    FakeAgent agent;
    EXPECT_TRUE(sendRequest({Verb::AcceptPush, "com.app", " m1"}, 5s, agent.opener()).result.ok());
    EXPECT_EQ(agent.take().id, " m1");
}

TEST(OneRequest, RefusedBeforeItIsSentOpensNothing) {
    FakeAgent agent;
    EXPECT_EQ(sendRequest({Verb::CreateChannel, "com.app", ""}, 5s, agent.opener()).result.code,
              kBadArgument);
    EXPECT_EQ(agent.opens, 0);
}

TEST(OneRequest, TellsAMissingObjectServiceFromAForbiddenObject) {
    char root[] = "/tmp/client_test_XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    setenv("QUIL_ROOT", root, 1);
    EXPECT_EQ(sendRequest({Verb::CreateSession, "com.app", ""}, 5s).result.code, kNoObjectService);
    rmdir(root);
    FakeAgent agent;
    agent.openError = EACCES;
    EXPECT_EQ(sendRequest({Verb::CreateSession, "com.app", ""}, 5s, agent.opener()).result.code,
              kNoPermission);
}
