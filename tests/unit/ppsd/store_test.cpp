// The tree: what the live tests cannot reach or see.

#include "ppsd/store/store.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/support/scratch_root.hpp"

namespace {

class Recorder : public ReadinessListener {
  public:
    void readinessChanged(OpenFile& file) override { told.push_back(&file); }
    std::vector<OpenFile*> told;
};

class StoreTest : public ::testing::Test {
  protected:
    StoreTest() { EXPECT_EQ(store->load(), 0); }

    std::unique_ptr<Store> makeStore() {
        return std::make_unique<Store>(root.path("/store"), listener, [](const std::string&) {});
    }

    std::unique_ptr<OpenFile> create(const std::string& text) {
        ObjectName name;
        EXPECT_EQ(parseObjectName(text, name), 0);
        std::unique_ptr<OpenFile> file;
        error = store->create(*store->root(), name, {1, 2}, 0644, {}, node, file);
        return file;
    }

    // A failing disk: nothing can be written aside in the root folder any more.
    void breakDisk() { std::filesystem::create_directory(root.path("/store/tree/?new")); }

    static std::string read(OpenFile& file) {
        std::string bytes;
        return file.read(1U << 20, bytes) == ReadOutcome::kBytes ? bytes : "nothing";
    }

    ScratchRoot root;
    Recorder listener;
    std::unique_ptr<Store> store = makeStore();
    std::shared_ptr<Node> node;
    int error = 0;
};

}  // namespace

TEST_F(StoreTest, WriteThatDoesNotReachTheDiskChangesNothingAndTellsNobody) {
    const auto file = create("obj");
    ASSERT_EQ(file->write("a::1\n"), 0);
    listener.told.clear();
    breakDisk();
    EXPECT_EQ(file->write("a::2\n"), EISDIR);
    EXPECT_TRUE(listener.told.empty());
    EXPECT_EQ(read(*file), "@obj\na::1\n");
}

TEST_F(StoreTest, MetadataThatDoesNotReachTheDiskIsNotShown) {
    const auto file = create("obj");
    breakDisk();
    Metadata metadata = node->metadata;
    metadata.mode = 0600;
    EXPECT_EQ(store->setMetadata(*node, metadata), EISDIR);
    EXPECT_EQ(node->metadata.mode, 0644U);
}

TEST_F(StoreTest, ObjectThatDoesNotReachTheDiskIsNotThere) {
    breakDisk();
    create("obj");
    EXPECT_EQ(error, EISDIR);
    EXPECT_EQ(store->find(*store->root(), "obj"), nullptr);
}

TEST_F(StoreTest, UnchangedValueIsNoChange) {
    const auto file = create("obj");
    file->write("a::1\n");
    read(*file);
    listener.told.clear();
    breakDisk();
    EXPECT_EQ(file->write("a::1\n"), 0) << "nothing has to be written";
    EXPECT_TRUE(listener.told.empty());
    EXPECT_EQ(read(*file), "nothing");
}

TEST_F(StoreTest, ClosedFileIsToldNothing) {
    const auto kept = create("obj");
    std::unique_ptr<OpenFile> closed;
    ASSERT_EQ(store->open(node, {}, {}, closed), 0);
    closed.reset();
    listener.told.clear();
    EXPECT_EQ(kept->write("a::1\n"), 0);
    EXPECT_EQ(listener.told, std::vector<OpenFile*>{kept.get()});
}

TEST_F(StoreTest, WriteRenewsTheTime) {
    const auto file = create("obj");
    Metadata metadata = node->metadata;
    metadata.modified = {1000, 0};
    ASSERT_EQ(store->setMetadata(*node, metadata), 0);
    ASSERT_EQ(file->write("a::1\n"), 0);
    EXPECT_GT(node->metadata.modified.tv_sec, 1000);
}

TEST_F(StoreTest, ReplacedObjectLivesOnForItsDescriptorsAndTouchesItsSuccessorNoMore) {
    const auto replaced = create("b");
    ASSERT_EQ(create("a")->write("a::1\n"), 0);
    ASSERT_EQ(store->rename(*store->root(), "a", *store->root(), "b", true), 0);
    EXPECT_EQ(replaced->write("b::2\n"), 0);
    EXPECT_EQ(read(*replaced), "@b\nb::2\n");
    store = nullptr;
    store = makeStore();
    ASSERT_EQ(store->load(), 0);
    std::shared_ptr<Node> kept = store->find(*store->root(), "b");
    std::unique_ptr<OpenFile> file;
    ASSERT_EQ(store->open(kept, {}, {}, file), 0);
    EXPECT_EQ(read(*file), "@b\na::1\n");
}

TEST_F(StoreTest, ServerThatWasOvertakenByAnotherGetsEbusy) {
    create("obj");
    std::shared_ptr<Node> first = node;
    std::shared_ptr<Node> second = node;
    std::unique_ptr<OpenFile> server;
    std::unique_ptr<OpenFile> late;
    ASSERT_EQ(store->open(first, OpenOptions::fromBits(4), {}, server), 0);
    EXPECT_EQ(store->open(second, OpenOptions::fromBits(4), {}, late), EBUSY);
}

TEST_F(StoreTest, NumbersOfNodesAreNeverUsedTwice) {
    create("a");
    const std::uint64_t first = node->number;
    ASSERT_EQ(store->removeObject(*store->root(), "a"), 0);
    create("a");
    EXPECT_GT(node->number, first);
}

TEST_F(StoreTest, NothingIsMadeInARemovedFolder) {
    std::shared_ptr<Node> folder;
    ASSERT_EQ(store->makeDirectory(*store->root(), "folder", {1, 2}, 0755, folder), 0);
    ASSERT_EQ(store->removeDirectory(*store->root(), "folder"), 0);
    auto& removed = static_cast<DirectoryNode&>(*folder);
    std::unique_ptr<OpenFile> file;
    ObjectName name{"obj", {}};
    EXPECT_EQ(store->create(removed, name, {1, 2}, 0644, {}, node, file), ENOENT);
    EXPECT_EQ(store->makeDirectory(removed, "inner", {1, 2}, 0755, node), ENOENT);
}

TEST_F(StoreTest, ClientOfAServerThatJustEndedGetsEnoent) {
    auto server = create("ipc?server");
    std::shared_ptr<Node> served = node;
    server.reset();
    std::unique_ptr<OpenFile> file;
    EXPECT_EQ(store->open(served, {}, {}, file), ENOENT);
}

TEST_F(StoreTest, OpenThatWasOvertakenByAServerIsSentBackToTheLookUp) {
    create("obj");
    std::shared_ptr<Node> object = node;
    std::shared_ptr<Node> served = node;
    std::unique_ptr<OpenFile> server;
    ASSERT_EQ(store->open(served, OpenOptions::fromBits(4), {}, server), 0);
    EXPECT_EQ(served->kind, NodeKind::kServed);
    std::unique_ptr<OpenFile> file;
    EXPECT_EQ(store->open(object, {}, {}, file), ESTALE);
}

TEST_F(StoreTest, FolderThatHoldsAServedObjectIsNotEmpty) {
    std::shared_ptr<Node> folder;
    ASSERT_EQ(store->makeDirectory(*store->root(), "folder", {1, 2}, 0755, folder), 0);
    auto& made = static_cast<DirectoryNode&>(*folder);
    std::unique_ptr<OpenFile> server;
    ObjectName name{"ipc", OpenOptions::fromBits(4)};
    ASSERT_EQ(store->create(made, name, {1, 2}, 0644, {}, node, server), 0);
    EXPECT_EQ(store->removeDirectory(*store->root(), "folder"), ENOTEMPTY);
    server.reset();
    EXPECT_EQ(store->removeDirectory(*store->root(), "folder"), 0);
}

TEST_F(StoreTest, RenameRefusesWhatItWasToldNotToReplace) {
    create("a");
    create("b");
    DirectoryNode& top = *store->root();
    EXPECT_EQ(store->rename(top, "a", top, "b", false), EEXIST);
    EXPECT_EQ(store->rename(top, "missing", top, "b", true), ENOENT);
    EXPECT_EQ(store->rename(top, "a", top, "a", true), 0);
    EXPECT_EQ(store->rename(top, "a", top, "a", false), EEXIST);
    EXPECT_EQ(store->rename(top, "a", top, "b", true), 0);
    EXPECT_EQ(store->list(top).size(), 1U);
}

TEST_F(StoreTest, DeepTreeComesBackWithItsNames) {
    DirectoryNode* folder = store->root().get();
    std::shared_ptr<Node> made;
    for (int depth = 0; depth < 60; ++depth) {
        ASSERT_EQ(store->makeDirectory(*folder, "d", {1, 2}, 0755, made), 0);
        folder = static_cast<DirectoryNode*>(made.get());
    }
    store.reset();
    store = makeStore();
    ASSERT_EQ(store->load(), 0);
    int depth = 0;
    for (std::shared_ptr<Node> at = store->root(); at != nullptr; ++depth) {
        at = store->find(static_cast<const DirectoryNode&>(*at), "d");
    }
    EXPECT_EQ(depth, 61);
}
