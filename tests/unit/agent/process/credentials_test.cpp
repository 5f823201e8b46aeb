// Dropping to a user and groups, for real: each case runs in a child process of its own, which
// tells what the kernel then says about it.

#include "agent/process/credentials.hpp"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/agent/in_child.hpp"

namespace {

// The numbers behind "Uid:", "Gid:" or "Groups:" in the kernel's own words, blanks between them.
std::string statusOf(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with(field + ":")) {
            std::istringstream words(line.substr(field.size() + 1));
            std::string all;
            for (std::string word; words >> word;) {
                all += (all.empty() ? "" : " ") + word;
            }
            return all;
        }
    }
    return "(no " + field + ")";
}

// "ok" or the failure, and what the process then is.
std::string outcomeOf(const std::string& spec) {
    errno = 0;
    const int result = setCredentials(spec.c_str());
    const int error = errno;
    const std::string word = result == 0 ? "ok" : strerrorname_np(error);
    return word + " uid " + statusOf("Uid") + " gid " + statusOf("Gid") + " groups " +
           statusOf("Groups");
}

// Real switches are for root alone. The child begins with user 0, group 0 and groups 7 and 8.
class CredentialsOfRoot : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can switch to other users";
        }
    }

    static std::string switchTo(const std::string& spec) {
        return inChild([&spec] {
            const gid_t groups[] = {7, 8};
            return setgroups(2, groups) == 0 && setgid(0) == 0 ? outcomeOf(spec) : "no start";
        });
    }
    // As a process that is no longer root, but user and group 65533 in group 7.
    static std::string switchAsStrangerTo(const std::string& spec) {
        return inChild([&spec] {
            const gid_t groups[] = {7};
            const bool isStranger =
                setgroups(1, groups) == 0 && setgid(65533) == 0 && setuid(65533) == 0;
            return isStranger ? outcomeOf(spec) : "no start";
        });
    }
};

const std::string kUnchanged = " uid 0 0 0 0 gid 0 0 0 0 groups 7 8";
const std::string kStranger = " uid 65533 65533 65533 65533 gid 65533 65533 65533 65533 groups 7";

}  // namespace

TEST_F(CredentialsOfRoot, DefaultSpecGivesUser44Group44AndGroups0And320) {
    EXPECT_EQ(switchTo("44:44,0,320"), "ok uid 44 44 44 44 gid 44 44 44 44 groups 0 320");
}

TEST_F(CredentialsOfRoot, UserAloneLeavesTheGroups) {
    EXPECT_EQ(switchTo("1000"), "ok uid 1000 1000 1000 1000 gid 0 0 0 0 groups 7 8");
}

TEST_F(CredentialsOfRoot, UserAndGroupClearTheSupplementaryGroups) {
    EXPECT_EQ(switchTo("1000:1001"), "ok uid 1000 1000 1000 1000 gid 1001 1001 1001 1001 groups ");
}

TEST_F(CredentialsOfRoot, OneSupplementaryGroupReplacesThoseThatWere) {
    EXPECT_EQ(switchTo("1000:1001,5"),
              "ok uid 1000 1000 1000 1000 gid 1001 1001 1001 1001 groups 5");
}

TEST_F(CredentialsOfRoot, NumbersAreHexadecimalAfter0xAndOctalAfter0) {
    EXPECT_EQ(switchTo("0x2c:054,0x10,017"), "ok uid 44 44 44 44 gid 44 44 44 44 groups 15 16");
}

TEST_F(CredentialsOfRoot, OtherCharacterBehindTheUserLeavesTheGroups) {
    const std::string onlyUser = "ok uid 44 44 44 44 gid 0 0 0 0 groups 7 8";
    EXPECT_EQ(switchTo("44,45"), onlyUser);
    EXPECT_EQ(switchTo("44x:45"), onlyUser);
    EXPECT_EQ(switchTo("44 :45"), onlyUser);
}

TEST_F(CredentialsOfRoot, OtherCharacterBehindAGroupEndsTheGroups) {
    EXPECT_EQ(switchTo("44:45,1;2"), "ok uid 44 44 44 44 gid 45 45 45 45 groups 1");
    EXPECT_EQ(switchTo("44:45:1"), "ok uid 44 44 44 44 gid 45 45 45 45 groups ");
}

TEST_F(CredentialsOfRoot, EmptyNumberIsZeroAsTheConversionGives) {
    EXPECT_EQ(switchTo("44:"), "ok uid 44 44 44 44 gid 0 0 0 0 groups ");
    EXPECT_EQ(switchTo("44:45,"), "ok uid 44 44 44 44 gid 45 45 45 45 groups 0");
}

TEST_F(CredentialsOfRoot, GroupsBeyondTheMaximumAreIgnored) {
    const long most = sysconf(_SC_NGROUPS_MAX);
    std::string spec = "1000:1001";
    for (long i = 0; i < most; ++i) {
        spec += ",5";
    }
    spec += ",6,6,6";
    const std::string counts = inChild([&spec] {
        if (setCredentials(spec.c_str()) != 0) {
            return std::string("failed: ") + strerrorname_np(errno);
        }
        std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
        getgroups(static_cast<int>(groups.size()), groups.data());
        long fives = 0;
        long sixes = 0;
        for (const gid_t group : groups) {
            fives += group == 5 ? 1 : 0;
            sixes += group == 6 ? 1 : 0;
        }
        return std::to_string(fives) + " of group 5, " + std::to_string(sixes) + " of group 6";
    });
    EXPECT_EQ(counts, std::to_string(most) + " of group 5, 0 of group 6");
}

TEST_F(CredentialsOfRoot, NumbersBeyond32BitsAreInvalid) {
    EXPECT_EQ(switchTo("4294967296"), "EINVAL" + kUnchanged);
    EXPECT_EQ(switchTo("99999999999999999999999"), "EINVAL" + kUnchanged);
    EXPECT_EQ(switchTo("44:4294967296"), "EINVAL" + kUnchanged);
}

TEST_F(CredentialsOfRoot, NegativeGroupIsInvalidAndNotALargeOne) {
    EXPECT_EQ(switchTo("44:-1"), "EINVAL" + kUnchanged);
    EXPECT_EQ(switchTo("44:-2"), "EINVAL" + kUnchanged);
}

TEST_F(CredentialsOfRoot, InvalidSupplementaryGroupFailsBeforeTheUserIsSwitched) {
    EXPECT_EQ(switchTo("44:45,4294967296"), "EINVAL uid 0 0 0 0 gid 45 45 45 45 groups 7 8");
}

TEST_F(CredentialsOfRoot, IdThatTheKernelKnowsForNobodyIsInvalid) {
    EXPECT_EQ(switchTo("4294967295"), "EINVAL" + kUnchanged);
    EXPECT_EQ(switchTo("44:4294967295"), "EINVAL" + kUnchanged);
}

TEST_F(CredentialsOfRoot, NameGivesUserGroupAndGroupsOfTheDataBase) {
    const char* name = "nobody";
    const passwd* entry = getpwnam(name);
    if (entry == nullptr) {
        GTEST_SKIP() << "this machine has no user nobody";
    }
    const std::string uid = std::to_string(entry->pw_uid);
    const std::string gid = std::to_string(entry->pw_gid);
    gid_t groups[64];
    int count = 64;
    ASSERT_GT(getgrouplist(name, entry->pw_gid, groups, &count), 0);
    ASSERT_EQ(count, 1) << "the test expects nobody in one group only";
    EXPECT_EQ(switchTo(name), "ok uid " + uid + " " + uid + " " + uid + " " + uid + " gid " + gid +
                                  " " + gid + " " + gid + " " + gid + " groups " + gid);
}

TEST_F(CredentialsOfRoot, UnknownNameIsInvalidAndChangesNothing) {
    EXPECT_EQ(switchTo("no-such-user"), "EINVAL" + kUnchanged);
}

TEST_F(CredentialsOfRoot, WhatDoesNotBeginWithADigitIsAName) {
    for (const char* spec : {"", "-1", " 44", ":44", "nobody:44", "+44"}) {
        EXPECT_EQ(switchTo(spec), "EINVAL" + kUnchanged) << spec;
    }
}

TEST_F(CredentialsOfRoot, StrangerMayNotTakeAnotherUser) {
    EXPECT_EQ(switchAsStrangerTo("0"), "EPERM" + kStranger);
}

TEST_F(CredentialsOfRoot, StrangerMayNotTakeAnotherGroup) {
    EXPECT_EQ(switchAsStrangerTo("65533:0"), "EPERM" + kStranger);
}

TEST_F(CredentialsOfRoot, StrangerMayNotClearGroups) {
    EXPECT_EQ(switchAsStrangerTo("65533:65533"), "EPERM" + kStranger);
}

TEST_F(CredentialsOfRoot, StrangerMayNotTakeANamedUser) {
    EXPECT_EQ(switchAsStrangerTo("root"), "EPERM" + kStranger);
}

TEST(Credentials, OwnUserIsAlwaysGranted) {
    const std::string own = std::to_string(geteuid());
    EXPECT_EQ(inChild([&own] { return outcomeOf(own).substr(0, 3); }), "ok ");
}

TEST(Credentials, UnknownNameIsInvalid) {
    errno = 0;
    EXPECT_EQ(setCredentials("no-such-user"), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Credentials, OrdinaryUserMayNotBecomeRoot) {
    for (const std::string spec : {"0", "root", "0:0"}) {
        const std::string outcome = asOrdinaryUser([&spec] { return outcomeOf(spec); });
        EXPECT_EQ(outcome.substr(0, 9), "EPERM uid") << spec << ": " << outcome;
        EXPECT_EQ(outcome.find("uid 0 "), std::string::npos) << spec << ": " << outcome;
    }
}
