// What has reached the medium when a change returns: the order of syncs and renames. This program's
// own fsync and rename stand in front of the system's and note what they are asked for.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "ppsd/store/disk.hpp"
#include "tests/support/scratch_root.hpp"

namespace {

using Steps = std::vector<std::string>;

Steps steps;
std::string treeFolder;

// `path` as it lies below the tree of the store, "." for the tree itself.
std::string inTree(const std::string& path) {
    if (path == treeFolder) {
        return ".";
    }
    return path.starts_with(treeFolder + "/") ? path.substr(treeFolder.size() + 1) : path;
}

std::string bytes(const std::string& text) {
    return " " + std::to_string(text.size()) + " bytes";
}

}  // namespace

extern "C" int fsync(int fd) {
    char path[PATH_MAX];
    const ssize_t length =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    struct stat status {};
    if (length > 0 && fstat(fd, &status) == 0) {
        steps.push_back(
            "sync " + inTree(std::string(path, static_cast<std::size_t>(length))) +
            (S_ISREG(status.st_mode) ? " " + std::to_string(status.st_size) + " bytes" : ""));
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int rename(const char* from, const char* to) noexcept {
    steps.push_back("rename " + inTree(from) + " to " + inTree(to));
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

namespace {

class SyncOrder : public ::testing::Test {
  protected:
    SyncOrder() {
        EXPECT_EQ(disk.open(), 0);
        treeFolder = root.path("/store/tree");
        steps.clear();
    }

    const Metadata metadata{1, 2, 0640, {3, 4}};
    const Record record{metadata, {{"a", "", "1"}}};
    ScratchRoot root;
    Disk disk{root.path("/store"), [](const std::string&) {}};
};

}  // namespace

TEST_F(SyncOrder, ObjectIsSyncedAsideThenRenamedThenItsFolderSynced) {
    ASSERT_EQ(disk.saveObject("obj", record), 0);
    EXPECT_EQ(steps,
              (Steps{"sync ?new" + bytes(encodeRecord(record)), "rename ?new to obj", "sync ."}));
}

TEST_F(SyncOrder, ModeOfAFolderTakesTheSameWay) {
    ASSERT_EQ(disk.saveDirectory("", metadata), 0);
    EXPECT_EQ(steps, (Steps{"sync ?new" + bytes(encodeRecord({metadata, {}})),
                            "rename ?new to ?dir", "sync ."}));
}

TEST_F(SyncOrder, FolderIsCompleteOnTheMediumBeforeItHasItsName) {
    ASSERT_EQ(disk.makeDirectory("folder", metadata), 0);
    EXPECT_EQ(steps, (Steps{"sync ?newdir/?new" + bytes(encodeRecord({metadata, {}})),
                            "rename ?newdir/?new to ?newdir/?dir", "sync ?newdir",
                            "rename ?newdir to folder", "sync ."}));
}

TEST_F(SyncOrder, RemovedObjectIsGoneFromTheMedium) {
    ASSERT_EQ(disk.saveObject("obj", record), 0);
    steps.clear();
    ASSERT_EQ(disk.removeObject("obj"), 0);
    EXPECT_EQ(steps, Steps{"sync ."});
}

TEST_F(SyncOrder, RemovedFolderIsGoneFromTheMedium) {
    ASSERT_EQ(disk.makeDirectory("folder", metadata), 0);
    steps.clear();
    ASSERT_EQ(disk.removeDirectory("folder"), 0);
    EXPECT_EQ(steps, (Steps{"rename folder to ?olddir", "sync ."}));
}

TEST_F(SyncOrder, MovedObjectReachesItsNewFolderBeforeItLeavesTheOldOne) {
    ASSERT_EQ(disk.makeDirectory("one", metadata), 0);
    ASSERT_EQ(disk.makeDirectory("two", metadata), 0);
    ASSERT_EQ(disk.saveObject("one/obj", record), 0);
    steps.clear();
    ASSERT_EQ(disk.rename("one/obj", "two/obj"), 0);
    EXPECT_EQ(steps, (Steps{"rename one/obj to two/obj", "sync two", "sync one"}));
}
