// Requests of somebody who may not act for the application: every one is answered as for an
// application without a session, changes nothing, and stands in the log.

#include <unistd.h>

#include <string>

#include "agent/process/handler_thread.hpp"
#include "agent/requests/request_reader.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/rules_fixture.hpp"

namespace {

const std::string kApp = "com.example.news";
const std::string kAnnsClient = "@ipc.1";
const std::string kBobsClient = "@ipc.2";
constexpr const char* kAll[] = {"createSession",        "createChannel", "destroyChannel",
                                "registerToLaunch",     "acceptPush",    "rejectPush",
                                "unregisterFromLaunch", "queryChannel",  "unknown"};

class RefusedRequests : public RulesTest {
  protected:
    RefusedRequests() {
        withRules("allow user ann com.example.*\nallow user * %u.*\n");
        serveObject();
    }

    static void open(const std::string& client, std::uint32_t user, std::uint32_t group = kUsers) {
        clientProcessRequest(("+" + client + "\nuid:n:" + std::to_string(user) +
                              "\ngid:n:" + std::to_string(group) + "\npid:n:77\n")
                                 .c_str());
    }
    static void ask(const std::string& client, const std::string& name,
                    const std::string& appId = kApp, const std::string& id = "1") {
        clientProcessRequest((client + "\nmsg::" + name + "\nid::" + id +
                              "\ndat:json:{\"providerApplicationId\":\"" + appId +
                              "\",\"ppgUrl\":\"http://127.0.0.1:1\",\"launchString\":\"evil\"}\n")
                                 .c_str());
    }
    static QuilSession* session() {
        return QuilSessionManager::getInstance()->getSessionByAppId(kApp);
    }
    static std::string refusal(const std::string& user, const std::string& request) {
        return "User [" + user + "] may not act for app id [" + kApp + "]: [" + request +
               "] refused.";
    }
};

}  // namespace

TEST_F(RefusedRequests, EachIsLoggedWithUserApplicationAndRequest) {
    open(kBobsClient, kBob);
    for (const char* request : kAll) {
        clearRecordedLines();
        ask(kBobsClient, request);
        EXPECT_EQ(countRecorded(3, refusal("bob (1001)", request)), 1) << recordedText();
    }
}

TEST_F(RefusedRequests, AreQueuedForNoApplicationOrAnsweredAtOnceOrNotAtAll) {
    addSession<QuilRegisterState>(kApp, kAnnsClient);
    open(kBobsClient, kBob);
    for (const char* request : kAll) {
        ask(kBobsClient, request);
    }
    EXPECT_EQ(drainQueue(),
              "type=1 app= id=1 client=@ipc.2 err=10100\n"
              "type=2 app= id=1 client=@ipc.2 err=10100 token=\n"
              "type=4 app= id=1 client=@ipc.2 err=10100\n"
              "type=4 app= id=1 client=@ipc.2 err=10100\n");
    EXPECT_EQ(repliesSoFar(),
              "@ipc.2\nmsg::onDestroyChannelComplete\nid::1\nerr:n:10100\n"
              "@ipc.2\nmsg::onQueryChannelComplete\nid::1\nerr:n:10100\n");
}

TEST_F(RefusedRequests, ChangeNothing) {
    QuilSession* session = addSession<QuilRegisterState>(kApp, kAnnsClient);
    session->setLaunchString("news");
    session->setPpgUrl("http://ppg");
    ASSERT_EQ(session->addPushSocket("1", dup(0)), 1);
    open(kBobsClient, kBob);
    for (const char* request : kAll) {
        ask(kBobsClient, request);
    }
    EXPECT_EQ(session->getClientObjectId(), kAnnsClient);
    EXPECT_EQ(session->getLaunchString(), "news");
    EXPECT_EQ(session->getPpgUrl(), "http://ppg");
    EXPECT_TRUE(session->isRegistered());
    EXPECT_NE(session->getPushSocket("1"), nullptr);
    EXPECT_EQ(session->getChannelRequests(), 0);
}

TEST_F(RefusedRequests, NoSessionIsMade) {
    open(kBobsClient, kBob);
    ask(kBobsClient, "createSession");
    EXPECT_EQ(session(), nullptr);
}

// Word for word what somebody reads who may act for an application without a session; and
// "createSession", which succeeds there, gives what all else gives.
TEST_F(RefusedRequests, AreAnsweredLikeThoseForAnApplicationWithoutASession) {
    addSession<QuilRegisterState>(kApp, kAnnsClient);
    open(kBobsClient, kBob);
    ASSERT_EQ(msgHandlerInit(), 1);
    for (const char* request : {"createChannel", "destroyChannel", "registerToLaunch",
                                "unregisterFromLaunch", "queryChannel"}) {
        ask(kBobsClient, request, "bob.none");
        const std::string expected = nextReply();
        EXPECT_NE(expected.find("err:n:"), std::string::npos) << expected;
        ask(kBobsClient, request);
        EXPECT_EQ(nextReply(), expected) << request;
    }
    ask(kBobsClient, "createSession");
    EXPECT_EQ(nextReply(), "@ipc.2\nmsg::onCreateSessionComplete\nid::1\nerr:n:500\n");
    for (const char* request : {"acceptPush", "rejectPush", "unknown"}) {
        ask(kBobsClient, request);
    }
    ask(kBobsClient, "registerToLaunch", kApp, "last");
    EXPECT_EQ(nextReply(), "@ipc.2\nid::last\nerr:n:500\n") << "nothing in between";
}

TEST_F(RefusedRequests, WhoMayActMayAlsoOnAConnectionThatMadeNoSession) {
    open(kAnnsClient, kAnn);
    open("@ipc.3", kAnn);
    ask(kAnnsClient, "createSession");
    ask("@ipc.3", "registerToLaunch");
    EXPECT_EQ(drainQueue(),
              "type=1 app=com.example.news id=1 client=@ipc.1 err=0\n"
              "type=4 app=com.example.news id=1 client=@ipc.3 err=0\n");
    EXPECT_EQ(session()->getLaunchString(), "evil");
    EXPECT_EQ(session()->getClientObjectId(), kAnnsClient);
}

TEST_F(RefusedRequests, OneConnectionMayActForOneApplicationAndNotForAnother) {
    open(kBobsClient, kBob);
    ask(kBobsClient, "createSession", "bob.mail");
    ask(kBobsClient, "createSession");
    EXPECT_EQ(drainQueue(),
              "type=1 app=bob.mail id=1 client=@ipc.2 err=0\n"
              "type=1 app= id=1 client=@ipc.2 err=10100\n");
}

// Which is another application than the one in front of it.
TEST_F(RefusedRequests, IdWithAZeroByteIsNobodysToActFor) {
    open(kAnnsClient, kAnn);
    ask(kAnnsClient, "createSession", kApp + "\\u0000x");
    EXPECT_EQ(drainQueue(), "type=1 app= id=1 client=@ipc.1 err=10100\n");
    EXPECT_TRUE(wasLogged(3, refusal("ann (1000)", "createSession")));
}

TEST_F(RefusedRequests, RootMayActForAll) {
    open("@ipc.9", 0, 0);
    ask("@ipc.9", "createSession");
    EXPECT_NE(session(), nullptr);
}

TEST_F(RefusedRequests, ConnectionWithoutANoticeMayNothing) {
    ask(kAnnsClient, "createSession");
    EXPECT_EQ(session(), nullptr);
    EXPECT_TRUE(wasLogged(3, refusal("not known", "createSession"))) << recordedText();
}

TEST_F(RefusedRequests, NoticeWithoutOrWithDamagedNumbersTellsOfNobody) {
    for (const char* lines :
         {"", "uid:n:1000\n", "gid:n:100\n", "uid:n:4294967295\ngid:n:100\n",
          "uid:n:-1\ngid:n:100\n", "uid:n:0x0\ngid:n:0\n", "uid:json:{}\ngid:n:0\n",
          "uid:n:\ngid:n:100\n", "uid:n:1e3\ngid:n:100\n", "uid:n:4294968296\ngid:n:100\n"}) {
        clearRecordedLines();
        clientProcessRequest(("+" + kAnnsClient + "\n" + lines).c_str());
        ask(kAnnsClient, "createSession");
        EXPECT_EQ(session(), nullptr) << lines;
        EXPECT_TRUE(wasLogged(3, refusal("not known", "createSession"))) << lines;
    }
}

TEST_F(RefusedRequests, HighestUserIsToldFromTheLowest) {
    open(kAnnsClient, 4294967294U);
    ask(kAnnsClient, "createSession");
    EXPECT_TRUE(wasLogged(3, refusal("4294967294", "createSession"))) << recordedText();
}

TEST_F(RefusedRequests, NoticeOfTheEndTakesTheUserAway) {
    open(kAnnsClient, kAnn);
    ask(kAnnsClient, "createSession");
    clientProcessRequest(("-" + kAnnsClient + "\n").c_str());
    clearRecordedLines();
    ask(kAnnsClient, "registerToLaunch");
    EXPECT_TRUE(wasLogged(3, refusal("not known", "registerToLaunch")));
}

// The object service puts the connection's own line in front of whatever it writes.
TEST_F(RefusedRequests, NoRequestPassesForANotice) {
    clientProcessRequest((kBobsClient + "\nuid:n:0\ngid:n:0\n").c_str());
    clientProcessRequest((kBobsClient + "\n+@ipc.2\nuid:n:0\ngid:n:0\n").c_str());
    ask(kBobsClient, "createSession");
    EXPECT_EQ(session(), nullptr);
}

TEST_F(RefusedRequests, RequestsWithoutAnApplicationAreAnsweredAsEver) {
    open(kBobsClient, kBob);
    for (const char* request : {"createSession", "createChannel", "destroyChannel"}) {
        ask(kBobsClient, request, "");
    }
    EXPECT_EQ(drainQueue(),
              "type=1 app= id=1 client=@ipc.2 err=10002\n"
              "type=2 app= id=1 client=@ipc.2 err=10002 token=\n"
              "type=3 app= id=1 client=@ipc.2 err=10002\n");
    EXPECT_FALSE(wasLogged(3,
                           "User [bob (1001)] may not act for app id []: [createSession] "
                           "refused."));
}

TEST_F(RefusedRequests, NoticeIsLoggedLineByLineAsWithoutTheUser) {
    clearRecordedLines();
    open(kAnnsClient, kAnn);
    EXPECT_EQ(recordedText(),
              "6 client id (connection id) @ipc.1\n"
              "5 ----------------- PPS_CREATED------------------------------\n"
              "6 msg []\n"
              "3 Empty message received from [@ipc.1].\n");
}

TEST_F(RefusedRequests, AllowedRequestsAreLoggedAsWithoutRules) {
    open(kAnnsClient, kAnn);
    clearRecordedLines();
    ask(kAnnsClient, "createSession");
    EXPECT_EQ(linesOf({"request_reader.cpp", "permissions.cpp", "user_lookup.cpp"}),
              "6 client id (connection id) @ipc.1\n"
              "6 msg [createSession]\n"
              "6 id [1].\n"
              "5 createSession Called!\n");
}
