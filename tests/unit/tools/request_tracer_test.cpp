// Requests followed through the agent's log, as far as the agent itself answers them.

#include <gtest/gtest.h>

#include "tools/quilctl/request_tracer.hpp"

namespace {

constexpr const char* kBegin = "clientIf_getMsg - Reading incoming IPC request.";
constexpr const char* kEnd = "quilAgentLoop: All the valid ports are\n";

// One line for each request, "APP NAME TROUBLE".
class Requests : public ::testing::Test {
  protected:
    Requests() {
        m_tracer.onEnd = [this](const RequestTrace& request) {
            m_shown += request.appId + " " + request.name + " " + request.trouble + "\n";
        };
    }

    std::string shownOf(std::initializer_list<const char*> lines) {
        m_shown.clear();
        for (const char* line : lines) {
            m_tracer.take(line, 1);
        }
        return m_shown;
    }

    RequestTracer m_tracer;
    std::string m_shown;
};

}  // namespace

TEST_F(Requests, ThatAreDoneAreTold) {
    EXPECT_EQ(shownOf({kBegin, "createSession Called!",
                       "addMessage: msg type[1] provider id[a] errorCode[0]", kEnd}),
              "a createSession \n");
    EXPECT_EQ(shownOf({kBegin, "registerToLaunch Called. launch string is [x]",
                       "addMessage: msg type[4] provider id[a] errorCode[0]", kEnd}),
              "a registerToLaunch \n");
    EXPECT_EQ(shownOf({kBegin, "unregisterFromLaunch Called.",
                       "addMessage: msg type[4] provider id[a] errorCode[0]", kEnd}),
              "a unregisterFromLaunch \n");
}

TEST_F(Requests, ThatFailHaveTheirCodeExplained) {
    EXPECT_EQ(shownOf({kBegin, "registerToLaunch Called. launch string is []",
                       "addMessage: msg type[4] provider id[a] errorCode[10101]", kEnd}),
              "a registerToLaunch 10101, the launch string is empty\n");
    EXPECT_EQ(shownOf({kBegin, "createChannel Called. ppgUrl is []", "quilCreateChannel: empty",
                       "addMessage: msg type[2] provider id[a] errorCode[10102]", kEnd}),
              "a createChannel 10102, the URL of the push server is empty\n");
}

// That is ChannelTracer's.
TEST_F(Requests, ForAChannelAreNotToldTwice) {
    EXPECT_EQ(shownOf({kBegin, "createChannel Called. ppgUrl is [http://x]",
                       "addMessage: msg type[7] provider id[a] errorCode[0]", kEnd,
                       "addMessage: msg type[2] provider id[a] errorCode[0]"}),
              "");
}

TEST_F(Requests, ToDestroyAChannelThatIsNotThereAreRefused) {
    EXPECT_EQ(shownOf({kBegin, "providerAppID is a\n",
                       "sendMessage: Callback [onDestroyChannelComplete] for client id[@ipc.5] "
                       "err[10004] has data[0]",
                       kEnd}),
              "a destroyChannel 10004, there is no channel to destroy: the session is not "
              "registered any more\n");
}

TEST_F(Requests, AreNotTakenForTheEndOfAChannel) {
    EXPECT_EQ(shownOf({"3 received", kBegin, "providerAppID is a\n",
                       "sendMessage: Callback [onDestroyChannelComplete] for client id[@ipc.5] "
                       "err[10103] has data[0]",
                       kEnd}),
              "");
    EXPECT_EQ(shownOf({"3 received",
                       "sendMessage: Callback [onSimChange] for client id[] err[0] has data[0]"}),
              "");
    EXPECT_NE(shownOf({kBegin, "providerAppID is a\n",
                       "sendMessage: Callback [onDestroyChannelComplete] for client id[@ipc.5] "
                       "err[10106] has data[0]",
                       kEnd}),
              "");
}

TEST_F(Requests, OfWhoMayNotAreToldOnce) {
    EXPECT_EQ(
        shownOf({kBegin, "User [ann (1000)] may not act for app id [a]: [createSession] refused.",
                 "addMessage: msg type[1] provider id[] errorCode[500]", kEnd}),
        "a createSession user ann (1000) may not\n");
    EXPECT_EQ(
        shownOf({kBegin, "User [ann (1000)] may not act for app id [a]: [destroyChannel] refused.",
                 "sendMessage: Callback [onDestroyChannelComplete] for client id[@ipc.5] "
                 "err[10100] has data[0]",
                 kEnd}),
        "a destroyChannel user ann (1000) may not\n");
}

TEST_F(Requests, ThatMakeNoSenseAreTold) {
    EXPECT_EQ(shownOf({kBegin, "provider id not found!",
                       "addMessage: msg type[1] provider id[] errorCode[10002]", kEnd}),
              " request it has no providerApplicationId\n");
    EXPECT_EQ(shownOf({kBegin, "Unexpected client message received: foo", kEnd}),
              " foo unknown request\n");
}

TEST_F(Requests, ThatAnswerAPushThatNobodyWaitsForAreTold) {
    EXPECT_EQ(shownOf({kBegin, "acceptPush called and Push id [ m1].", "providerAppID is a\n",
                       "Failed to find pushId[ m1]", kEnd}),
              "a acceptPush nobody waits for the answer to push ' m1'\n");
    EXPECT_EQ(shownOf({kBegin, "rejectPush called and Push id [ m1].",
                       "quilAccept: session for app id [a] not found.", kEnd}),
              "a rejectPush no session\n");
}
