// Who may act for which application, with and without rules, and what is known of a connection's
// user. The rules are read once, so each test has a process of its own.

#include "agent/requests/permissions.hpp"

#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "agent/configuration/config_manager.hpp"
#include "tests/support/agent/rules_fixture.hpp"

namespace {

using Permissions = RulesTest;

const std::string kClient = "@ipc.17";

}  // namespace

TEST_F(Permissions, WithoutTheKeyEverybodyMayAndNothingIsKeptOrLooked) {
    QuilPermissions& permissions = withConfiguration("http-timeout 60\n");
    EXPECT_TRUE(permissions.mayAct(kClient, "com.x"));
    permissions.addConnection(kClient, kAnn, kUsers);
    EXPECT_TRUE(permissions.mayAct(kClient, "com.x"));
    EXPECT_EQ(permissions.describeUser(kClient), "not known");
    EXPECT_EQ(countUserLookups(), 0);
    EXPECT_EQ(linesOf("permissions.cpp"), "");
}

TEST_F(Permissions, EmptyValueIsTheDefault) {
    EXPECT_TRUE(withConfiguration("rules \n").mayAct(kClient, "com.x"));
}

TEST_F(Permissions, LaterLineOfTheConfigurationReplacesAnEarlierOne) {
    writeFile("/etc/quilagent.rules", "allow user ann com.*\n");
    EXPECT_TRUE(withConfiguration("rules /etc/quilagent.rules\nrules \n").mayAct("@ipc.1", "x"));
}

TEST_F(Permissions, UserMayDoWhatALineAllows) {
    QuilPermissions& permissions = withRules("allow user ann com.example.*\nallow user * %u.*\n");
    permissions.addConnection("@ipc.1", kAnn, kUsers);
    permissions.addConnection("@ipc.2", kBob, kUsers);
    EXPECT_TRUE(permissions.mayAct("@ipc.1", "com.example.news"));
    EXPECT_TRUE(permissions.mayAct("@ipc.1", "ann.x"));
    EXPECT_FALSE(permissions.mayAct("@ipc.1", "bob.x"));
    EXPECT_FALSE(permissions.mayAct("@ipc.2", "com.example.news"));
    EXPECT_TRUE(permissions.mayAct("@ipc.2", "bob.x"));
    EXPECT_EQ(linesOf("permissions.cpp"),
              "5 rules: 2 lines of /etc/quilagent.rules say who may act for which application\n");
}

TEST_F(Permissions, GroupsAreThoseOfTheUserAndThatOfTheConnection) {
    QuilPermissions& permissions = withRules("allow group staff com.*\nallow group 60 games.*\n");
    permissions.addConnection("@ipc.1", kAnn, kUsers);
    permissions.addConnection("@ipc.2", kBob, kUsers);
    permissions.addConnection("@ipc.3", kAnn, 60);
    permissions.addConnection("@ipc.4", kAnn, 27);
    EXPECT_FALSE(permissions.mayAct("@ipc.1", "com.x"));
    EXPECT_TRUE(permissions.mayAct("@ipc.2", "com.x"));
    EXPECT_FALSE(permissions.mayAct("@ipc.1", "games.x"));
    EXPECT_TRUE(permissions.mayAct("@ipc.3", "games.x"));
    EXPECT_TRUE(permissions.mayAct("@ipc.4", "com.x"));
}

TEST_F(Permissions, RootMayEverythingWithoutALookUp) {
    QuilPermissions& permissions = withRules("");
    permissions.addConnection(kClient, 0, 0);
    EXPECT_TRUE(permissions.mayAct(kClient, "com.x"));
    EXPECT_EQ(countUserLookups(), 0);
}

TEST_F(Permissions, ConnectionOfNobodyKnownMayNothing) {
    QuilPermissions& permissions = withRules("allow user * *\nallow group * *\n");
    EXPECT_FALSE(permissions.mayAct(kClient, "com.x"));
    EXPECT_FALSE(permissions.mayAct("", "com.x"));
    EXPECT_EQ(permissions.describeUser(kClient), "not known");
}

TEST_F(Permissions, ConnectionThatEndedIsForgotten) {
    QuilPermissions& permissions = withRules("allow user ann *\n");
    permissions.addConnection("@ipc.1", kAnn, kUsers);
    permissions.addConnection("@ipc.2", kAnn, kUsers);
    permissions.removeConnection("@ipc.1");
    permissions.removeConnection("@ipc.3");
    EXPECT_FALSE(permissions.mayAct("@ipc.1", "com.x"));
    EXPECT_TRUE(permissions.mayAct("@ipc.2", "com.x"));
    permissions.forgetConnections();
    EXPECT_FALSE(permissions.mayAct("@ipc.2", "com.x"));
}

TEST_F(Permissions, NewConnectionUnderAnIdHasNothingOfTheOneBefore) {
    QuilPermissions& permissions = withRules("allow user ann *\n");
    permissions.addConnection(kClient, kAnn, kUsers);
    EXPECT_TRUE(permissions.mayAct(kClient, "com.x"));
    permissions.addConnection(kClient, kBob, kUsers);
    EXPECT_FALSE(permissions.mayAct(kClient, "com.x"));
}

TEST_F(Permissions, UserIsLookedUpOnceForAConnection) {
    QuilPermissions& permissions = withRules("allow user ann *\n");
    permissions.addConnection("@ipc.1", kAnn, kUsers);
    EXPECT_EQ(countUserLookups(), 0) << "not before it is needed";
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(permissions.mayAct("@ipc.1", "com.x"));
    }
    EXPECT_EQ(countUserLookups(), 1);
    permissions.addConnection("@ipc.2", kAnn, kUsers);
    EXPECT_TRUE(permissions.mayAct("@ipc.2", "com.x"));
    EXPECT_EQ(countUserLookups(), 2);
}

TEST_F(Permissions, NumbersNeedNoLookUp) {
    QuilPermissions& permissions =
        withRules("allow user 1000 com.*\nallow group 100 org.*\nallow user * net.*\n");
    permissions.addConnection(kClient, kAnn, kUsers);
    for (const char* appId : {"com.x", "org.x", "net.x"}) {
        EXPECT_TRUE(permissions.mayAct(kClient, appId)) << appId;
    }
    EXPECT_EQ(countUserLookups(), 0);
    EXPECT_EQ(permissions.describeUser(kClient), "1000, whose name is not known yet");
}

TEST_F(Permissions, UserIsDescribedByNameAndNumber) {
    QuilPermissions& permissions = withRules("allow user ann com.*\n");
    permissions.addConnection("@ipc.1", kBob, kUsers);
    permissions.addConnection("@ipc.2", kNameless, kUsers);
    EXPECT_FALSE(permissions.mayAct("@ipc.1", "com.x"));
    EXPECT_FALSE(permissions.mayAct("@ipc.2", "com.x"));
    EXPECT_EQ(permissions.describeUser("@ipc.1"), "bob (1001)");
    EXPECT_EQ(permissions.describeUser("@ipc.2"), "4321");
}

TEST_F(Permissions, FailedLookUpTakesRightsAwayUntilTheNextRequest) {
    QuilPermissions& permissions = withRules("allow user ann *\n");
    permissions.addConnection(kClient, kAnn, kUsers);
    failUserLookups(EMFILE);
    EXPECT_FALSE(permissions.mayAct(kClient, "com.x"));
    EXPECT_EQ(permissions.describeUser(kClient), "1000, whose name is not known yet");
    failUserLookups(0);
    EXPECT_TRUE(permissions.mayAct(kClient, "com.x"));
}

TEST_F(Permissions, SlowNameServiceIsWaitedForOnceAndServesLater) {
    QuilPermissions& permissions = withRules("allow user ann com.*\nallow user 1000 org.*\n");
    permissions.addConnection("@ipc.1", kAnn, kUsers);
    permissions.addConnection("@ipc.2", kAnn, kUsers);
    {
        const SlowNameService slow;
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 20; ++i) {
            EXPECT_FALSE(permissions.mayAct("@ipc.1", "com.x"));
            EXPECT_FALSE(permissions.mayAct("@ipc.2", "com.x"));
            EXPECT_TRUE(permissions.mayAct("@ipc.1", "org.x")) << "needs no name";
        }
        const auto time = std::chrono::steady_clock::now() - start;
        EXPECT_GE(time, UserLookup::kPatience);
        EXPECT_LT(time, 10 * UserLookup::kPatience) << "40 requests, one wait";
    }
    EXPECT_TRUE(waitUntil([&] { return permissions.mayAct("@ipc.1", "com.x"); }));
    EXPECT_TRUE(waitUntil([&] { return permissions.mayAct("@ipc.2", "com.x"); }));
}

TEST_F(Permissions, ConnectionMayEndWhileItsUserIsLookedUp) {
    QuilPermissions& permissions = withRules("allow user ann *\n");
    {
        const SlowNameService slow;
        permissions.addConnection(kClient, kAnn, kUsers);
        EXPECT_FALSE(permissions.mayAct(kClient, "com.x"));
        permissions.removeConnection(kClient);
    }
    permissions.addConnection(kClient, kAnn, kUsers);
    EXPECT_TRUE(waitUntil([&] { return permissions.mayAct(kClient, "com.x"); }));
}

TEST_F(Permissions, MissingFileLeavesRootAloneAndSaysWhich) {
    QuilPermissions& permissions = withConfiguration("rules /etc/none\n");
    permissions.addConnection("@ipc.1", kAnn, kUsers);
    permissions.addConnection("@ipc.2", 0, 0);
    EXPECT_FALSE(permissions.mayAct("@ipc.1", "com.x"));
    EXPECT_TRUE(permissions.mayAct("@ipc.2", "com.x"));
    EXPECT_EQ(linesOf("permissions.cpp"),
              "3 rules: cannot read /etc/none: No such file or directory\n"
              "3 rules: only root may act for applications\n");
}

TEST_F(Permissions, BadLineLeavesRootAloneAndIsNamed) {
    QuilPermissions& permissions =
        withRules("allow user ann *\n\ndeny user bob *\nallow group 7\n");
    permissions.addConnection("@ipc.1", kAnn, kUsers);
    permissions.addConnection("@ipc.2", 0, 0);
    EXPECT_FALSE(permissions.mayAct("@ipc.1", "com.x"));
    EXPECT_TRUE(permissions.mayAct("@ipc.2", "com.x"));
    EXPECT_EQ(linesOf("permissions.cpp"),
              "3 rules: /etc/quilagent.rules line 3 begins with 'deny' instead of 'allow'\n"
              "3 rules: /etc/quilagent.rules line 4 names no pattern of application ids\n"
              "3 rules: only root may act for applications\n");
}

TEST_F(Permissions, RelativePathIsNone) {
    QuilPermissions& permissions = withConfiguration("rules quilagent.rules\n");
    permissions.addConnection(kClient, kAnn, kUsers);
    EXPECT_FALSE(permissions.mayAct(kClient, "com.x"));
    EXPECT_TRUE(wasLogged(3, "rules: cannot read quilagent.rules: it is no absolute path"));
}

TEST_F(Permissions, ManyBadLinesAreCounted) {
    std::string text;
    for (int i = 0; i < 50; ++i) {
        text += "x\n";
    }
    withRules(text);
    EXPECT_EQ(countRecorded(3, "rules: /etc/quilagent.rules has 30 more bad lines"), 1);
    EXPECT_TRUE(wasLogged(3,
                          "rules: /etc/quilagent.rules line 20 begins with 'x' instead of "
                          "'allow'"));
    EXPECT_FALSE(wasLogged(3,
                           "rules: /etc/quilagent.rules line 21 begins with 'x' instead of "
                           "'allow'"));
}

// A key that is lost must not be one that was never there. It is short, so that the one thing to be
// had for it is its place among the settings.
TEST_F(Permissions, KeyThatCouldNotBeKeptLeavesRootAlone) {
    constexpr std::size_t kPlaceBytes = 32 + sizeof(std::pair<const std::string, std::string>);
    writeFile("/etc/quilagent.rules", "allow user ann *\n");
    writeFile("/etc/quilagent.conf", "rules /r\n");
    {
        const FailingAllocations failing(kPlaceBytes, kPlaceBytes);
        ASSERT_NE(QuilConfigManager::getInstance(), nullptr);
    }
    ASSERT_EQ(QuilConfigManager::getInstance()->getValue("rules"), "");
    QuilPermissions& permissions = *QuilPermissions::getInstance();
    permissions.addConnection(kClient, kAnn, kUsers);
    EXPECT_FALSE(permissions.mayAct(kClient, "com.x"));
    EXPECT_TRUE(wasLogged(3, "rules: cannot read : it is no absolute path"));
}

// The text of the file is the one large piece of memory that is needed.
TEST_F(Permissions, WithoutMemoryForTheRulesOnlyRootMay) {
    writeFile("/etc/quilagent.rules", "allow user ann *\n");
    writeFile("/etc/quilagent.conf", "rules /etc/quilagent.rules\n");
    ASSERT_NE(QuilConfigManager::getInstance(), nullptr);
    QuilPermissions* permissions = nullptr;
    {
        const FailingAllocations failing(65536, 70000);
        permissions = QuilPermissions::getInstance();
    }
    ASSERT_NE(permissions, nullptr);
    permissions->addConnection("@ipc.1", kAnn, kUsers);
    permissions->addConnection("@ipc.2", 0, 0);
    EXPECT_FALSE(permissions->mayAct("@ipc.1", "com.x"));
    EXPECT_TRUE(permissions->mayAct("@ipc.2", "com.x"));
    EXPECT_EQ(linesOf("permissions.cpp"), "3 rules: no memory to read them: only root may act\n");
}

TEST_F(Permissions, ConnectionThereIsNoMemoryForMayNothingAndIsLogged) {
    QuilPermissions& permissions = withRules("allow user * *\n");
    const std::string longId = "@ipc." + std::string(1000, '1');
    {
        const FailingAllocations failing(longId.size() + 1, longId.size() + 1);  // its copy
        permissions.addConnection(longId, kAnn, kUsers);
    }
    EXPECT_FALSE(permissions.mayAct(longId, "com.x"));
    EXPECT_TRUE(wasLogged(3,
                          "QuilPermissions::addConnection: exception occurred when adding client "
                          "id [" +
                              longId + "]"))
        << recordedText();
}
