// How the mount is asked for, and how its paths are shown.

#include "ppsd/fuse/mount_point.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "tests/support/scratch_root.hpp"

namespace {

bool permits(const std::string& text) {
    std::istringstream configuration(text);
    return permitsOthers(configuration);
}

}  // namespace

TEST(MountPoint, OthersArePermittedByTheOptionOnALineOfItsOwn) {
    EXPECT_TRUE(permits("user_allow_other\n"));
    EXPECT_TRUE(
        permits("# comment\nmount_max = 10\n  user_allow_other \t# as the helper reads it"));
}

TEST(MountPoint, OthersAreNotPermittedByAnythingElse) {
    for (const char* text : {"", "#user_allow_other\n", "user_allow_others\n",
                             "user_allow_other x\n", "not user_allow_other\n"}) {
        EXPECT_FALSE(permits(text)) << text;
    }
}

TEST(MountPoint, PermissionChecksAreLeftToTheKernel) {
    EXPECT_EQ(mountOptions().substr(0, 20), "default_permissions,");
}

TEST(MountPoint, SecondServiceThatPreparesTheSameFolderIsRefusedBeforeAnyMount) {
    const ScratchRoot root;
    MountPoint first(root.path("/pps"));
    MountPoint second(root.path("/pps"));
    std::string error;
    ASSERT_TRUE(first.prepare(error)) << error;
    EXPECT_FALSE(second.prepare(error));
    EXPECT_NE(error.find("is in use"), std::string::npos) << error;
}

TEST(MountPoint, PathIsShownWithoutTheRoot) {
    setenv("QUIL_ROOT", "/tmp/scratch", 1);
    EXPECT_EQ(displayPath("/tmp/scratch/pps"), "/pps");
    EXPECT_EQ(displayPath("/tmp/scratchy/pps"), "/tmp/scratchy/pps");
    EXPECT_EQ(displayPath("/pps"), "/pps");
}

TEST(MountPoint, PathIsShownWithoutARootThatIsRelativeOrRoundabout) {
    setenv("QUIL_ROOT", "scratch", 1);
    EXPECT_EQ(displayPath(std::filesystem::current_path().string() + "/scratch/pps"), "/pps");
    setenv("QUIL_ROOT", "/tmp//a/../scratch/", 1);
    EXPECT_EQ(displayPath("/tmp/scratch/pps"), "/pps");
}

TEST(MountPoint, PathIsShownWholeWithoutARoot) {
    unsetenv("QUIL_ROOT");
    EXPECT_EQ(displayPath("/srv/pps"), "/srv/pps");
    setenv("QUIL_ROOT", "/", 1);
    EXPECT_EQ(displayPath("/srv/pps"), "/srv/pps");
}
