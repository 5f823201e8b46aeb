// The command line of the real program, and the user that it becomes.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/unit/agent/process/start_up_fixture.hpp"

namespace {

using StartupOfRoot = Startup;

const std::string kUsage =
    "Usage: quilagent [options] [&]\n"
    "where [options] can be\n"
    "  -U credentials\n"
    "  -v         debug mode level 2..6\n";

}  // namespace

TEST_F(Startup, UnknownOptionShowsTheUsageAndFails) {
    EXPECT_EQ(run({"-x"}), 1);
    EXPECT_EQ(errors(), kUsage);
    EXPECT_EQ(output(), "");
}

TEST_F(Startup, UserOptionWithoutItsArgumentShowsTheUsageAndFails) {
    EXPECT_EQ(run({"-v", "-U"}), 1);
    EXPECT_EQ(errors(), kUsage);
    EXPECT_EQ(output(), "");
}

TEST_F(Startup, LongOptionsAreUnknown) {
    EXPECT_EQ(run({"--help"}), 1);
    EXPECT_EQ(errors(), kUsage);
}

TEST_F(Startup, UnknownOptionBehindGoodOnesShowsTheUsage) {
    EXPECT_EQ(run({"-U", ownUser(), "-vz"}), 1);
    EXPECT_EQ(errors(), kUsage);
}

TEST_F(Startup, UnknownUserFailsWithAnInvalidArgument) {
    m_root.makeQuietPlatform();
    EXPECT_EQ(run({"-U", "no-such-user"}), 1);
    EXPECT_EQ(linesOf(output(), {"start_up.cpp"}),
              "Initialize Configuration Manager - done.\n"
              "Failed to set credentials: Invalid user/group spec[no-such-user] errno[22] "
              "error[Invalid argument]\n");
    EXPECT_EQ(errors(), "");
}

TEST_F(Startup, EmptyUserOptionIsAnUnknownUserAndNotTheSetting) {
    m_root.write("/etc/quilagent.conf", "user " + ownUser() + "\n");
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", ""}), 1);
}

TEST_F(Startup, UserOfTheFileIsUsedWithoutTheOption) {
    m_root.write("/etc/quilagent.conf", "user no-such-user\n");
    EXPECT_EQ(run({}), 1);
    EXPECT_NE(output().find("spec[no-such-user]"), std::string::npos) << output();
}

TEST_F(Startup, UserOptionWinsOverTheFile) {
    m_root.write("/etc/quilagent.conf", "user no-such-user\n");
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", ownUser()}), 0) << output();
}

TEST_F(Startup, LastUserOptionCounts) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", "no-such-user", "-U", ownUser()}), 0) << output();
}

TEST_F(Startup, OrdinaryUserMayNotTakeTheDefaultUser) {
    const std::string program = programPath();
    if (asOrdinaryUser([&] { return access(program.c_str(), X_OK) == 0 ? "yes" : "no"; }) !=
        "yes") {
        GTEST_SKIP() << "NOT TESTED: an ordinary user may not reach " << program;
    }
    Setting setting;
    setting.isOrdinary = true;
    EXPECT_EQ(run({}, setting), 1);
    EXPECT_NE(output().find("Failed to set credentials: Invalid user/group spec[44:44,0,320] "
                            "errno[1] error[Operation not permitted]\n"),
              std::string::npos)
        << output();
}

TEST_F(StartupOfRoot, DefaultIsUser44Group44AndGroups0And320) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can switch to other users";
    }
    m_root.makeQuietPlatform();
    giveEverythingTo(44);
    startAndIdle({});
    EXPECT_EQ(statusOf("Uid"), "44 44 44 44");
    EXPECT_EQ(statusOf("Gid"), "44 44 44 44");
    EXPECT_EQ(statusOf("Groups"), "0 320");
}

TEST_F(StartupOfRoot, FilesOfTheAgentBelongToTheUserItSwitchedTo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can switch to other users";
    }
    m_root.makeQuietPlatform();
    giveEverythingTo(45);
    startAndIdle({"-U", "45:46"});
    struct stat entry {};
    ASSERT_EQ(stat(m_root.at("/pps/services/push/quilagent").c_str(), &entry), 0);
    EXPECT_EQ(entry.st_uid, 45U);
    EXPECT_EQ(entry.st_gid, 46U);
}
