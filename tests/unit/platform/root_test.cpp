// Where the platform's paths lie, with and without QUIL_ROOT.

#include "platform/root/root.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

TEST(Root, UnsetRootLeavesThePathAsItIs) {
    unsetenv("QUIL_ROOT");
    EXPECT_EQ(platformPath("/pps/services/push/ipc"), "/pps/services/push/ipc");
}

TEST(Root, EmptyRootCountsAsUnset) {
    setenv("QUIL_ROOT", "", 1);
    EXPECT_EQ(platformPath("/etc/quilagent.conf"), "/etc/quilagent.conf");
}

TEST(Root, RootStandsInFrontOfThePath) {
    setenv("QUIL_ROOT", "/tmp/scratch", 1);
    EXPECT_EQ(platformPath("/etc/quilagent.conf"), "/tmp/scratch/etc/quilagent.conf");
}

TEST(Root, TrailingSlashesOfTheRootAreDropped) {
    setenv("QUIL_ROOT", "/tmp/scratch//", 1);
    EXPECT_EQ(platformPath("/pps/x"), "/tmp/scratch/pps/x");
}

TEST(Root, SlashAloneMeansTheRealRoot) {
    setenv("QUIL_ROOT", "/", 1);
    EXPECT_EQ(platformPath("/pps/x"), "/pps/x");
}
