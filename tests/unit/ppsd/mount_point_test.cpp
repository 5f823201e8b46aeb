// How the mount is asked for, and how its paths are shown.

#include "ppsd/fuse/mount_point.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

TEST(MountPoint, FolderUnderneathIsClosedToOthersWhateverItsModeWas) {
    const ScratchRoot root;
    for (const mode_t mode : {0755U, 01777U, 0700U}) {
        ASSERT_EQ(mkdir(root.path("/pps").c_str(), 0700), 0);
        ASSERT_EQ(chmod(root.path("/pps").c_str(), mode), 0);
        std::string error;
        EXPECT_TRUE(MountPoint(root.path("/pps")).prepare(error)) << error;
        struct stat status {};
        ASSERT_EQ(stat(root.path("/pps").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0700U);
        rmdir(root.path("/pps").c_str());
    }
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
