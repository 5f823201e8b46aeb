// What has reached the medium when a change returns: the order of syncs and renames. This program's
// own fsync and rename stand in front of the system's and note what they are asked for.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include "ppsd/store/disk.hpp"
#include "tests/support/scratch_root.hpp"

namespace {

using Steps = std::vector<std::string>;

Steps steps;
std::string treeFolder;
std::string failingSync;  // of this folder

// `path` as it lies below the tree of the store, "." for the tree itself.
std::string inTree(const std::string& path) {
    if (path == treeFolder) {
        return ".";
    }
    return path.starts_with(treeFolder + "/") ? path.substr(treeFolder.size() + 1) : path;
}

std::string pathOf(int fd) {
    char path[PATH_MAX];
    const ssize_t length =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return length > 0 ? inTree(std::string(path, static_cast<std::size_t>(length))) : "nothing";
}

std::string entryOf(int folder, const char* name) {
    const std::string path = pathOf(folder);
    return path == "." ? name : path + "/" + name;
}

std::string bytes(off_t size) {
    return " " + std::to_string(size) + " bytes";
}

std::string bytes(const std::string& text) {
    return bytes(static_cast<off_t>(text.size()));
}

}  // namespace

extern "C" int fsync(int fd) {
    struct stat status {};
    if (fstat(fd, &status) == 0) {
        steps.push_back("sync " + pathOf(fd) +
                        (S_ISREG(status.st_mode) ? bytes(status.st_size) : ""));
    }
    if (!failingSync.empty() && pathOf(fd) == failingSync) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept {
    steps.push_back("rename " + entryOf(fromFolder, from) + " to " + entryOf(toFolder, to));
    return static_cast<int>(syscall(SYS_renameat2, fromFolder, from, toFolder, to, 0));
}

namespace {

class SyncOrder : public ::testing::Test {
  protected:
    SyncOrder() {
        EXPECT_EQ(disk.open(), 0);
        treeFolder = root.path("/store/tree");
        steps.clear();
    }
    ~SyncOrder() override { failingSync.clear(); }

    // What is stored in the folder, by name.
    std::string list(const std::string& folder) {
        std::string names;
        for (const Disk::Entry& entry : disk.load(folder)) {
            names += entry.name + (entry.isDirectory ? "/ " : " ");
        }
        return names;
    }

    const Metadata metadata{1, 2, 0640, {3, 4}};
    const Record record{metadata, "a::1\n"};
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
    EXPECT_EQ(steps, (Steps{"rename obj to ?new", "sync ."}));
    EXPECT_EQ(list(""), "");
}

TEST_F(SyncOrder, ChangeOfAFolderThatCannotBeSyncedIsTakenBack) {
    ASSERT_EQ(disk.makeDirectory("one", metadata), 0);
    ASSERT_EQ(disk.makeDirectory("two", metadata), 0);
    ASSERT_EQ(disk.saveObject("one/obj", record), 0);
    failingSync = "one";
    EXPECT_EQ(disk.removeObject("one/obj"), EIO);
    EXPECT_EQ(disk.rename("one/obj", "two/obj"), EIO);
    EXPECT_EQ(disk.rename("one/obj", "one/other"), EIO);
    EXPECT_EQ(disk.makeDirectory("one/folder", metadata), EIO);
    failingSync = "two";
    EXPECT_EQ(disk.rename("one/obj", "two/obj"), EIO);
    failingSync = ".";
    EXPECT_EQ(disk.removeDirectory("two"), EIO);
    failingSync.clear();
    EXPECT_EQ(list(""), "one/ two/ ");
    EXPECT_EQ(list("one"), "obj ");
    EXPECT_EQ(list("two"), "");
    EXPECT_EQ(disk.rename("one/obj", "two/obj"), 0);
    EXPECT_EQ(disk.removeDirectory("one"), 0);
}

TEST_F(SyncOrder, ReplacedObjectIsThereAgainWhenTheRenameIsTakenBack) {
    const Record other{metadata, "b::2\n"};
    ASSERT_EQ(disk.saveObject("a", record), 0);
    ASSERT_EQ(disk.saveObject("b", other), 0);
    failingSync = ".";
    EXPECT_EQ(disk.rename("a", "b"), EIO);
    failingSync.clear();
    const std::vector<Disk::Entry> entries = disk.load("");
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].record.lines, record.lines);
    EXPECT_EQ(entries[1].record.lines, other.lines);
    EXPECT_EQ(disk.rename("a", "b"), 0);
    EXPECT_EQ(list(""), "b ");
}

TEST_F(SyncOrder, NewObjectOfAFolderThatCannotBeSyncedIsNotThere) {
    failingSync = ".";
    EXPECT_EQ(disk.saveObject("new", record), EIO);
    failingSync.clear();
    EXPECT_EQ(list(""), "");
    EXPECT_EQ(disk.makeDirectory("new", metadata), 0);
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

TEST_F(SyncOrder, ObjectsThatAreSavedTogetherShareTheSyncOfTheirFolder) {
    ASSERT_EQ(disk.makeDirectory("folder", metadata), 0);
    steps.clear();
    std::vector<Disk::Save> saves{{"a", false, record, -1},
                                  {"folder/b", false, record, -1},
                                  {"c", false, record, -1},
                                  {"folder", true, record, -1}};
    disk.saveAll(saves);
    for (const Disk::Save& save : saves) {
        EXPECT_EQ(save.error, 0) << save.path;
    }
    const std::string size = bytes(encodeRecord(record));
    EXPECT_EQ(steps, (Steps{"sync ?new" + size, "sync folder/?new1" + size, "sync ?new2" + size,
                            "sync folder/?new3" + size, "rename ?new to a",
                            "rename folder/?new1 to folder/b", "rename ?new2 to c",
                            "rename folder/?new3 to folder/?dir", "sync .", "sync folder"}));
}
