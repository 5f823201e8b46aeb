// What a crash between any two steps, a full disk or a careless hand leaves behind.

#include "ppsd/store/disk.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/support/scratch_root.hpp"

namespace {

namespace fs = std::filesystem;

const Metadata kMetadata{1, 2, 0640, {3, 4}};

class DiskTest : public ::testing::Test {
  protected:
    DiskTest() { EXPECT_EQ(disk.open(), 0); }

    std::string tree(const std::string& name) const { return root.path("/store/tree/") + name; }

    // "name=attributes" for objects and "name/" for folders, of a store read anew.
    std::string loaded(const std::string& folder = "") {
        reports.clear();
        std::string seen;
        for (const Disk::Entry& entry : disk.load(folder)) {
            seen += entry.name + (entry.isDirectory ? "/" : "=") + entry.record.lines + " ";
        }
        return seen;
    }

    static Record record(const std::string& value) { return {kMetadata, "a::" + value + "\n"}; }

    ScratchRoot root;
    std::vector<std::string> reports;
    Disk disk{root.path("/store"), [this](const std::string& text) { reports.push_back(text); }};
};

void put(const std::string& path, const std::string& content) {
    std::ofstream(path) << content;
}

}  // namespace

TEST_F(DiskTest, StoreIsClosedToOtherUsers) {
    EXPECT_EQ(disk.saveObject("obj", record("1")), 0);
    struct stat status {};
    ASSERT_EQ(stat(root.path("/store").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);
    ASSERT_EQ(stat(tree("obj").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(DiskTest, SecondUserIsRefused) {
    Disk second(root.path("/store"), [](const std::string&) {});
    EXPECT_EQ(second.open(), EWOULDBLOCK);
}

TEST_F(DiskTest, HalfWrittenReplacementLeavesTheOldObject) {
    disk.saveObject("obj", record("1"));
    put(tree("?new"), encodeRecord(record("2")).substr(0, 40));
    EXPECT_EQ(loaded(), "obj=a::1\n ");
    EXPECT_TRUE(reports.empty());
    EXPECT_FALSE(fs::exists(tree("?new"))) << "leftovers are removed";
}

TEST_F(DiskTest, HalfMadeFolderIsNoFolder) {
    fs::create_directory(tree("?newdir"));
    put(tree("?newdir/?new"), "half");
    EXPECT_EQ(loaded(), "");
    EXPECT_FALSE(fs::exists(tree("?newdir")));
    EXPECT_EQ(disk.makeDirectory("folder", kMetadata), 0);
    EXPECT_EQ(loaded(), "folder/ ");
}

TEST_F(DiskTest, HalfRemovedFolderIsGone) {
    disk.makeDirectory("folder", kMetadata);
    fs::rename(tree("folder"), tree("?olddir"));
    EXPECT_EQ(loaded(), "");
    EXPECT_FALSE(fs::exists(tree("?olddir")));
}

TEST_F(DiskTest, LeftoverDoesNotPreventTheNextChange) {
    fs::create_directory(tree("?newdir"));
    fs::create_directory(tree("?olddir"));
    EXPECT_EQ(disk.makeDirectory("folder", kMetadata), 0);
    EXPECT_EQ(disk.removeDirectory("folder"), 0);
    EXPECT_EQ(loaded(), "");
}

TEST_F(DiskTest, LeftoverThatCannotBeRemovedIsReportedByItsPathInTheStore) {
    fs::create_directories(tree("?olddir/inner"));
    EXPECT_EQ(loaded(), "");
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].substr(0, 41), "cannot remove the leftover tree/?olddir: ") << reports[0];
}

TEST_F(DiskTest, DamagedObjectIsReportedAndKeptAside) {
    disk.saveObject("good", record("1"));
    put(tree("bad"), "a::1\n");
    EXPECT_EQ(loaded(), "good=a::1\n ");
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0],
              "stored /bad is damaged (the first line is not that of a record), kept aside as "
              "damaged/1-bad");
    EXPECT_TRUE(fs::exists(root.path("/store/damaged/1-bad")));
    put(tree("bad"), "again");
    loaded();
    EXPECT_TRUE(fs::exists(root.path("/store/damaged/2-bad"))) << "nothing kept is overwritten";
}

TEST_F(DiskTest, FolderWithADamagedRecordKeepsItsObjectsAndIsClosed) {
    disk.makeDirectory("folder", kMetadata);
    disk.saveObject("folder/obj", record("1"));
    put(tree("folder/?dir"), "nonsense");
    const std::vector<Disk::Entry> entries = disk.load("");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_TRUE(entries[0].isDirectory);
    EXPECT_EQ(entries[0].record.metadata.mode, 0700U);
    EXPECT_EQ(entries[0].record.metadata.owner, geteuid());
    EXPECT_EQ(reports.size(), 1U);
    EXPECT_EQ(loaded("folder"), "obj=a::1\n ");
}

TEST_F(DiskTest, StrangeFilesAreKeptAsideAndNotFollowed) {
    put(root.path("/secret"), encodeRecord(record("secret")));
    fs::create_symlink(root.path("/secret"), tree("link"));
    ASSERT_EQ(mkfifo(tree("fifo").c_str(), 0600), 0);
    EXPECT_EQ(loaded(), "");
    EXPECT_EQ(reports.size(), 2U);
    EXPECT_TRUE(fs::exists(root.path("/secret")));
}

TEST_F(DiskTest, FailedSaveLeavesTheOldObjectAndNoLeftover) {
    disk.saveObject("obj", record("1"));
    fs::create_directory(tree("?new"));
    EXPECT_EQ(disk.saveObject("obj", record("2")), EISDIR);
    fs::remove(tree("?new"));
    EXPECT_EQ(loaded(), "obj=a::1\n ");
}

TEST_F(DiskTest, SaveThatCannotTakeItsPlaceLeavesNothingBehind) {
    fs::create_directory(tree("obj"));
    EXPECT_EQ(disk.saveObject("obj", record("1")), EISDIR);
    EXPECT_FALSE(fs::exists(tree("?new")));
}

TEST_F(DiskTest, DiskThatFillsUpInTheMiddleOfASaveLeavesTheOldObject) {
    disk.saveObject("obj", record("1"));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{1000, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    const int error = disk.saveObject("obj", record(std::string(5000, 'x')));
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(error, EFBIG);
    EXPECT_EQ(loaded(), "obj=a::1\n ");
    EXPECT_TRUE(reports.empty());
}

TEST_F(DiskTest, FolderWithSomethingThatCouldNotBeLoadedIsNotRemoved) {
    disk.makeDirectory("folder", kMetadata);
    put(tree("folder/unknown"), "x");
    EXPECT_EQ(disk.removeDirectory("folder"), ENOTEMPTY);
    EXPECT_TRUE(fs::exists(tree("folder/unknown")));
}

TEST_F(DiskTest, RootWithoutARecordTakesTheFallbackAndKeepsIt) {
    EXPECT_EQ(disk.loadRoot(kMetadata), kMetadata);
    EXPECT_EQ(disk.loadRoot({9, 9, 0700, {0, 0}}), kMetadata);
    put(tree("?dir"), "nonsense");
    EXPECT_EQ(disk.loadRoot({9, 9, 0700, {0, 0}}).owner, 9U);
    EXPECT_EQ(reports.size(), 1U);
}
