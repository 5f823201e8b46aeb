// Who may act for which application, with users that are really others: what each request of
// somebody who may not is answered with, and that the application never notices.

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "tests/integration/device.hpp"
#include "tests/support/other_user.hpp"

namespace {

// Two users that every system has, and one that none has.
constexpr const char* kOwner = "daemon";
constexpr const char* kIntruder = "bin";
constexpr uid_t kNameless = 54321;

const std::string kNews = "daemon.news";
const std::string kUrl = "\"ppgUrl\":\"http://127.0.0.1:1\"";

class AgentRules : public Device {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "NOT TESTED: only root can act as another user";
        }
        for (const char* name : {kOwner, kIntruder}) {
            if (getpwnam(name) == nullptr) {
                GTEST_SKIP() << "NOT TESTED: there is no user " << name << " here";
            }
        }
        Device::SetUp();
        if (!IsSkipped() && !HasFatalFailure()) {
            startServer();
        }
    }

    // An agent with these rules.
    void start(const std::string& rules) {
        writeRules(rules);
        configure("rules /etc/quilagent.rules");
        ASSERT_TRUE(startAgent());
    }
    void writeRules(const std::string& rules) const {
        const std::string path = m_root.path("/etc/quilagent.rules");
        std::ofstream(path) << rules;
        chmod(path.c_str(), 0600);
    }

    std::unique_ptr<ClientConnection> connectAs(uid_t user, gid_t group) const {
        return std::make_unique<ClientConnection>(
            openAs(m_root.path("/pps/services/push/ipc"), user, group));
    }
    std::unique_ptr<ClientConnection> connectAs(const char* name) const {
        const passwd* entry = getpwnam(name);
        return connectAs(entry->pw_uid, entry->pw_gid);
    }

    static bool makesSession(ClientConnection& client, const std::string& appId) {
        client.request("createSession", "s", appId);
        const Reply reply = client.next();
        EXPECT_EQ(reply.msg, "onCreateSessionComplete");
        EXPECT_TRUE(reply.err == 0 || reply.err == 500) << reply.err;
        return reply.err == 0;
    }

    std::string refusal(const char* request, const std::string& user = kIntruder) const {
        const passwd* entry = getpwnam(user.c_str());
        const std::string shown =
            entry == nullptr ? user : user + " (" + std::to_string(entry->pw_uid) + ")";
        return "User [" + shown + "] may not act for app id [" + kNews + "]: [" + request +
               "] refused.";
    }
};

}  // namespace

TEST_F(AgentRules, WithoutThemEverybodyMayActForEverything) {
    ASSERT_TRUE(startAgent());
    const auto owner = connectAs(kOwner);
    createChannel(*owner, kNews);
    const auto other = connectAs(kIntruder);
    EXPECT_TRUE(makesSession(*other, kNews));
    other->request("destroyChannel", "d", kNews);
    EXPECT_EQ(other->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::d\n");
}

TEST_F(AgentRules, UserActsForApplicationsUnderTheirOwnName) {
    start("allow user * %u.*\n");
    const auto owner = connectAs(kOwner);
    const int port = createChannel(*owner, kNews);
    const PushSender sender(port);
    ASSERT_TRUE(sender.send(makePush("m", "x")));
    EXPECT_EQ(owner->next().id, "m");
    owner->request("acceptPush", "m", kNews);
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
    owner->request("registerToLaunch", "l", kNews, "\"launchString\":\"news\"");
    EXPECT_EQ(owner->next().text, "@ipc\nid::l\n");
    owner->request("unregisterFromLaunch", "u", kNews);
    EXPECT_EQ(owner->next().text, "@ipc\nid::u\n");
    owner->request("destroyChannel", "d", kNews);
    EXPECT_EQ(owner->next().text, "@ipc\nmsg::onDestroyChannelComplete\nid::d\n");
    const auto nameless = connectAs(kNameless, kNameless);
    EXPECT_TRUE(makesSession(*nameless, "54321.app"));
    EXPECT_FALSE(makesSession(*nameless, kNews));
}

TEST_F(AgentRules, EveryRequestOfAnotherUserIsAnsweredAsForAnApplicationWithoutASession) {
    start("allow user daemon daemon.*\nallow user bin bin.*\n");
    const auto owner = connectAs(kOwner);
    createChannel(*owner, kNews);
    const auto intruder = connectAs(kIntruder);
    const std::string nothing = "bin.none";  // which has none, and bin may act for
    const std::pair<const char*, std::string> answered[] = {
        {"createChannel", kUrl},
        {"destroyChannel", ""},
        {"registerToLaunch", "\"launchString\":\"evil\""},
        {"registerToLaunch", "\"launchString\":\"\""},
        {"unregisterFromLaunch", ""},
    };
    for (const auto& [request, extra] : answered) {
        intruder->request(request, "1", nothing, extra);
        const Reply expected = intruder->next();
        EXPECT_GT(expected.err, 0) << request;
        intruder->request(request, "1", kNews, extra);
        EXPECT_EQ(intruder->next().text, expected.text) << request;
        EXPECT_TRUE(waitForLog(refusal(request)));
    }
    intruder->request("createSession", "1", kNews);
    EXPECT_EQ(intruder->next().text, "@ipc\nmsg::onCreateSessionComplete\nid::1\nerr:n:500\n");
    EXPECT_TRUE(waitForLog(refusal("createSession")));
    for (const char* request : {"acceptPush", "rejectPush", "unknown"}) {
        intruder->request(request, "1", kNews);
        EXPECT_TRUE(waitForLog(refusal(request)));
    }
    EXPECT_TRUE(intruder->isSilent());
}

TEST_F(AgentRules, RefusedRequestsChangeNothing) {
    start("allow user daemon daemon.*\n");
    const auto owner = connectAs(kOwner);
    const int port = createChannel(*owner, kNews);
    owner->request("registerToLaunch", "l", kNews, "\"launchString\":\"news\"");
    EXPECT_EQ(owner->next().id, "l");
    const PushSender waiting(port);
    ASSERT_TRUE(waiting.send(makePush("m", "x")));
    EXPECT_EQ(owner->next().id, "m");
    const std::string saved = readObject("/pps/services/push/quilagent");
    const std::string log = serverLog();

    const auto intruder = connectAs(kIntruder);
    for (const char* request :
         {"createSession", "createChannel", "destroyChannel", "registerToLaunch",
          "unregisterFromLaunch", "acceptPush", "rejectPush", "unknown"}) {
        intruder->request(request, "m", kNews, kUrl + ",\"launchString\":\"evil\"");
        EXPECT_TRUE(waitForLog(refusal(request)));
    }
    EXPECT_TRUE(isListening(port));
    EXPECT_EQ(readObject("/pps/services/push/quilagent"), saved);
    EXPECT_EQ(serverLog(), log) << "the push server heard nothing";
    EXPECT_EQ(waiting.readToEnd(0.3), "(still open)") << "nobody answered the push";
    const PushSender next(port);
    ASSERT_TRUE(next.send(makePush("n", "x")));
    EXPECT_EQ(owner->next().id, "n") << "pushes still go to the application";
    owner->request("acceptPush", "m", kNews);
    EXPECT_TRUE(isAcknowledgement(waiting.readToEnd()));
}

// Where the application's own requests wait, a refusal would tell that there is one, wait for its
// push server, and take room from it.
TEST_F(AgentRules, RefusalsAreNotHeldUpByTheApplicationsPushServer) {
    startServer({"--delay", "60"});
    start("allow user daemon daemon.*\n");
    const auto owner = connectAs(kOwner);
    ASSERT_TRUE(makesSession(*owner, kNews));
    owner->request("createChannel", "c", kNews, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    ASSERT_TRUE(waitUntil([&] { return serverLog().find("register") != std::string::npos; }));
    const auto intruder = connectAs(kIntruder);
    for (int i = 0; i < 1200; ++i) {
        intruder->request("createSession", "s", kNews);
        ASSERT_EQ(intruder->next(10).err, 500) << i;
        intruder->request("unknown", "u", kNews);
    }
    ASSERT_TRUE(waitForLog(refusal("unknown")));
    EXPECT_EQ(agentLog().find("too many messages wait"), std::string::npos);
}

TEST_F(AgentRules, RefusedSessionDoesNotTakeThePushThatWaitsForItsApplication) {
    start("allow user daemon daemon.*\n");
    auto owner = connectAs(kOwner);
    const int port = createChannel(*owner, kNews);
    ASSERT_TRUE(waitForLog("Save to persistent memory returns 1"));
    killAgent();
    ASSERT_TRUE(startAgent());
    const PushSender sender(port);
    ASSERT_TRUE(sender.send(makePush("late", "x")));
    ASSERT_TRUE(waitForLog("serverIfProcessData: getClientObjectId is empty"));
    const auto intruder = connectAs(kIntruder);
    EXPECT_FALSE(makesSession(*intruder, kNews));
    EXPECT_TRUE(intruder->isSilent());
    owner = connectAs(kOwner);
    EXPECT_TRUE(makesSession(*owner, kNews));
    EXPECT_EQ(owner->next().id, "late");
}

TEST_F(AgentRules, AnotherConnectionOfTheSameUserMayAnswer) {
    start("allow user daemon daemon.*\n");
    const auto first = connectAs(kOwner);
    const PushSender sender(createChannel(*first, kNews));
    ASSERT_TRUE(sender.send(makePush("m", "x")));
    EXPECT_EQ(first->next().id, "m");
    const auto second = connectAs(kOwner);
    second->request("acceptPush", "m", kNews);
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
}

TEST_F(AgentRules, GroupOfTheConnectionCounts) {
    start("allow group 4321 com.*\n");
    EXPECT_TRUE(makesSession(*connectAs(kNameless, 4321), "com.x"));
    EXPECT_FALSE(makesSession(*connectAs(kNameless, 4322), "com.x"));
    EXPECT_FALSE(makesSession(*connectAs(4321, 4322), "com.x")) << "a user is no group";
}

TEST_F(AgentRules, NobodyIsWhoTheySayTheyAre) {
    start("allow user daemon daemon.*\n");
    const auto intruder = connectAs(kIntruder);
    intruder->write("uid:n:0\ngid:n:0\npid:n:1\n");
    intruder->write("+@ipc.1\nuid:n:0\ngid:n:0\n");
    intruder->write("@ipc.1\nuid:n:0\ngid:n:0\n");
    EXPECT_FALSE(makesSession(*intruder, kNews));
    intruder->write(
        "msg::createSession\nid::1\nuid:n:0\ngid:n:0\n"
        "dat:json:{\"providerApplicationId\":\"" +
        kNews + "\"}\n");
    EXPECT_EQ(intruder->next().err, 500);
}

TEST_F(AgentRules, RootActsForEverythingWhateverTheRulesSay) {
    start("");
    const auto root = connect();
    createChannel(*root, kNews);
    EXPECT_FALSE(makesSession(*connectAs(kOwner), kNews));
}

TEST_F(AgentRules, BadLineLeavesRootAloneAndTheLogNamesIt) {
    start("allow user daemon *\nallow everybody\n");
    EXPECT_TRUE(waitForLog("rules: /etc/quilagent.rules line 2 has 'everybody' behind 'allow'"));
    EXPECT_FALSE(makesSession(*connectAs(kOwner), kNews));
    EXPECT_TRUE(makesSession(*connect(), kNews));
}

TEST_F(AgentRules, MissingFileLeavesRootAloneAndTheLogNamesIt) {
    configure("rules /etc/none");
    ASSERT_TRUE(startAgent());
    EXPECT_TRUE(waitForLog("rules: cannot read /etc/none: No such file or directory"));
    EXPECT_FALSE(makesSession(*connectAs(kOwner), kNews));
    EXPECT_TRUE(makesSession(*connect(), kNews));
}

TEST_F(AgentRules, RulesAreThoseOfTheStart) {
    start("allow user daemon daemon.*\n");
    writeRules("allow user bin *\n");
    EXPECT_FALSE(makesSession(*connectAs(kIntruder), kNews));
    killAgent();
    ASSERT_TRUE(startAgent());
    EXPECT_TRUE(makesSession(*connectAs(kIntruder), kNews));
}

// Connection ids begin anew with the object service: the intruder gets one that was the owner's.
TEST_F(AgentRules, NobodyInheritsAConnectionOfTheServiceBefore) {
    start("allow user daemon daemon.*\n");
    std::vector<std::unique_ptr<ClientConnection>> owners;
    for (int i = 0; i < 5; ++i) {
        owners.push_back(connectAs(kOwner));
        ASSERT_TRUE(makesSession(*owners.back(), kNews));
    }
    const std::size_t before = agentLog().size();
    m_ppsd->kill();
    ASSERT_TRUE(m_ppsd->start());
    ASSERT_TRUE(waitForLog("object service is back", before));
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(makesSession(*connectAs(kIntruder), kNews));
    }
    EXPECT_TRUE(makesSession(*connectAs(kOwner), kNews));
}

TEST_F(AgentRules, ManyConnectionsComeAndGo) {
    start("allow user daemon daemon.*\n");
    for (int i = 0; i < 300; ++i) {
        EXPECT_TRUE(makesSession(*connectAs(kOwner), kNews));
        EXPECT_FALSE(makesSession(*connectAs(kIntruder), kNews));
    }
}
