// The tree: what the live tests cannot reach or see.

#include "ppsd/store/store.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/scratch_root.hpp"

namespace {

class Recorder : public ReadinessListener {
  public:
    void readinessChanged(OpenFile& file) noexcept override { told.push_back(&file); }
    std::vector<OpenFile*> told;
};

const std::string kLongName(255, 'n');

class StoreTest : public ::testing::Test {
  protected:
    StoreTest() { EXPECT_EQ(store->load(), 0); }

    std::unique_ptr<Store> makeStore() {
        return std::make_unique<Store>(
            root.path("/store"), listener, [](const std::string&) {}, accounts);
    }

    std::unique_ptr<OpenFile> create(const std::string& text) {
        ObjectName name;
        EXPECT_EQ(parseObjectName(text, name), 0);
        std::unique_ptr<OpenFile> file;
        error = create(store->root(), name, file);
        return file;
    }
    int create(const std::shared_ptr<DirectoryNode>& folder, const ObjectName& name,
               std::unique_ptr<OpenFile>& file) {
        return ended([&](const Done& done) {
            store->create(folder, name, {1, 2}, 0644, {}, kept(file, done));
        });
    }

    // How something ended that is over when its call returns: 0 or an errno value.
    template <typename Action>
    static int ended(Action action) {
        int end = -1;
        action(Done([&](int result) { end = result; }));
        return end;
    }
    int put(OpenFile& file, std::string_view text, uid_t writer = 0) {
        return ended([&](const Done& done) { file.write(writer, text, done); });
    }
    int open(const std::shared_ptr<Node>& opened, OpenOptions options,
             std::unique_ptr<OpenFile>& file, Store::Access access = {}) {
        return ended(
            [&](const Done& done) { store->open(opened, options, access, kept(file, done)); });
    }
    int makeDirectory(const std::shared_ptr<Node>& folder, const std::string& name) {
        return ended([&](const Done& done) {
            store->makeDirectory(std::static_pointer_cast<DirectoryNode>(folder), name, {1, 2},
                                 0755, [&, done](int result, const std::shared_ptr<Node>& made) {
                                     node = made;
                                     done(result);
                                 });
        });
    }
    int removeDirectory(const std::string& name) {
        return ended(
            [&](const Done& done) { store->removeDirectory(1, store->root(), name, done); });
    }
    int removeObject(const std::string& name) {
        return ended([&](const Done& done) { store->removeObject(1, store->root(), name, done); });
    }
    int rename(const std::string& from, const std::string& to, bool mayReplace) {
        return ended([&](const Done& done) {
            store->rename(1, store->root(), from, store->root(), to, mayReplace, done);
        });
    }
    int setMetadata(const Store::MetadataChange& change) {
        return ended([&](const Done& done) { store->setMetadata(1, node, change, done); });
    }
    // Keeps what was opened, and the node in `node`.
    Store::Opened kept(std::unique_ptr<OpenFile>& file, const Done& done) {
        return [&, done](int result, const std::shared_ptr<Node>& opened,
                         std::unique_ptr<OpenFile> made) {
            node = opened;
            file = std::move(made);
            done(result);
        };
    }

    // A failing disk: nothing can be written aside in the root folder any more.
    void breakDisk() { std::filesystem::create_directory(root.path("/store/tree/?new")); }

    static std::string read(OpenFile& file) {
        std::string bytes;
        return file.read(0, 1U << 20, bytes) == ReadOutcome::kBytes ? bytes : "nothing";
    }

    ScratchRoot root;
    Accounts accounts{{1000000, 100, 100, 1000000}};
    Recorder listener;
    std::unique_ptr<Store> store = makeStore();
    std::shared_ptr<Node> node;
    int error = 0;
};

}  // namespace

TEST_F(StoreTest, WriteThatDoesNotReachTheDiskChangesNothingAndTellsNobody) {
    const auto file = create("obj");
    ASSERT_EQ(put(*file, "a::1\n"), 0);
    listener.told.clear();
    breakDisk();
    EXPECT_EQ(put(*file, "a::2\n"), EISDIR);
    EXPECT_TRUE(listener.told.empty());
    EXPECT_EQ(read(*file), "@obj\na::1\n");
}

TEST_F(StoreTest, MetadataThatDoesNotReachTheDiskIsNotShown) {
    const auto file = create("obj");
    breakDisk();
    EXPECT_EQ(setMetadata({0600, {}, {}, {}}), EISDIR);
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
    put(*file, "a::1\n");
    read(*file);
    listener.told.clear();
    breakDisk();
    EXPECT_EQ(put(*file, "a::1\n"), 0) << "nothing has to be written";
    EXPECT_TRUE(listener.told.empty());
    EXPECT_EQ(read(*file), "nothing");
}

TEST_F(StoreTest, ClosedFileIsToldNothing) {
    const auto kept = create("obj");
    std::unique_ptr<OpenFile> closed;
    ASSERT_EQ(open(node, {}, closed), 0);
    closed.reset();
    listener.told.clear();
    EXPECT_EQ(put(*kept, "a::1\n"), 0);
    EXPECT_EQ(listener.told, std::vector<OpenFile*>{kept.get()});
}

TEST_F(StoreTest, WriteRenewsTheTime) {
    const auto file = create("obj");
    ASSERT_EQ(setMetadata({{}, {}, {}, timespec{1000, 0}}), 0);
    ASSERT_EQ(put(*file, "a::1\n"), 0);
    EXPECT_GT(node->metadata.modified.tv_sec, 1000);
}

TEST_F(StoreTest, ReplacedObjectLivesOnForItsDescriptorsAndTouchesItsSuccessorNoMore) {
    auto replaced = create("b");
    ASSERT_EQ(put(*create("a"), "a::1\n"), 0);
    ASSERT_EQ(rename("a", "b", true), 0);
    EXPECT_EQ(put(*replaced, "b::2\n"), 0);
    EXPECT_EQ(read(*replaced), "@b\nb::2\n");
    replaced.reset();  // the store outlives its files
    store = nullptr;
    store = makeStore();
    ASSERT_EQ(store->load(), 0);
    std::shared_ptr<Node> kept = store->find(*store->root(), "b");
    std::unique_ptr<OpenFile> file;
    ASSERT_EQ(open(kept, {}, file), 0);
    EXPECT_EQ(read(*file), "@b\na::1\n");
}

TEST_F(StoreTest, ServerThatWasOvertakenByAnotherGetsEbusy) {
    create("obj");
    std::shared_ptr<Node> first = node;
    std::shared_ptr<Node> second = node;
    std::unique_ptr<OpenFile> server;
    std::unique_ptr<OpenFile> late;
    ASSERT_EQ(open(first, OpenOptions::fromBits(4), server), 0);
    EXPECT_EQ(open(second, OpenOptions::fromBits(4), late), EBUSY);
}

TEST_F(StoreTest, NumbersOfNodesAreNeverUsedTwice) {
    create("a");
    const std::uint64_t first = node->number;
    ASSERT_EQ(removeObject("a"), 0);
    create("a");
    EXPECT_GT(node->number, first);
}

TEST_F(StoreTest, NothingIsMadeInARemovedFolder) {
    ASSERT_EQ(makeDirectory(store->root(), "folder"), 0);
    const auto folder = std::static_pointer_cast<DirectoryNode>(node);
    ASSERT_EQ(removeDirectory("folder"), 0);
    std::unique_ptr<OpenFile> file;
    EXPECT_EQ(create(folder, {"obj", {}}, file), ENOENT);
    EXPECT_EQ(makeDirectory(folder, "inner"), ENOENT);
}

TEST_F(StoreTest, ClientOfAServerThatJustEndedGetsEnoent) {
    auto server = create("ipc?server");
    std::shared_ptr<Node> served = node;
    server.reset();
    std::unique_ptr<OpenFile> file;
    EXPECT_EQ(open(served, {}, file), ENOENT);
}

TEST_F(StoreTest, OpenThatWasOvertakenByAServerIsSentBackToTheLookUp) {
    create("obj");
    std::shared_ptr<Node> object = node;
    std::shared_ptr<Node> served = node;
    std::unique_ptr<OpenFile> server;
    ASSERT_EQ(open(served, OpenOptions::fromBits(4), server), 0);
    EXPECT_EQ(node->kind, NodeKind::kServed);
    std::unique_ptr<OpenFile> file;
    EXPECT_EQ(open(object, {}, file), ESTALE);
}

TEST_F(StoreTest, FolderThatHoldsAServedObjectIsNotEmpty) {
    ASSERT_EQ(makeDirectory(store->root(), "folder"), 0);
    const auto folder = std::static_pointer_cast<DirectoryNode>(node);
    std::unique_ptr<OpenFile> server;
    ASSERT_EQ(create(folder, {"ipc", OpenOptions::fromBits(4)}, server), 0);
    EXPECT_EQ(removeDirectory("folder"), ENOTEMPTY);
    server.reset();
    EXPECT_EQ(removeDirectory("folder"), 0);
}

TEST_F(StoreTest, RenameRefusesWhatItWasToldNotToReplace) {
    create("a");
    create("b");
    EXPECT_EQ(rename("a", "b", false), EEXIST);
    EXPECT_EQ(rename("missing", "b", true), ENOENT);
    EXPECT_EQ(rename("a", "a", true), 0);
    EXPECT_EQ(rename("a", "a", false), EEXIST);
    EXPECT_EQ(rename("a", "b", true), 0);
    std::shared_ptr<Charge> charge;
    EXPECT_EQ(store->list(*store->root(), 1, charge)->entries.size(), 3U) << "with . and ..";
}

TEST_F(StoreTest, DeepestTreeWithTheLongestNamesComesBack) {
    node = store->root();
    for (int depth = 0; depth < 64; ++depth) {
        ASSERT_EQ(makeDirectory(node, kLongName), 0) << depth;
    }
    const std::shared_ptr<Node> deepest = node;
    EXPECT_EQ(makeDirectory(deepest, kLongName), ENAMETOOLONG);
    std::unique_ptr<OpenFile> file;
    ASSERT_EQ(create(std::static_pointer_cast<DirectoryNode>(deepest), {kLongName, {}}, file), 0);
    ASSERT_EQ(put(*file, "a::1\n"), 0);
    file.reset();
    node.reset();
    store.reset();
    store = makeStore();
    ASSERT_EQ(store->load(), 0);
    int depth = 0;
    for (std::shared_ptr<Node> at = store->root(); at != nullptr; ++depth) {
        at = at->kind == NodeKind::kObject
                 ? nullptr
                 : store->find(static_cast<const DirectoryNode&>(*at), kLongName);
    }
    EXPECT_EQ(depth, 66) << "the root, its folders and the object";
}

TEST_F(StoreTest, RenameThatWouldMakeATooDeepTreeIsRefused) {
    node = store->root();
    for (int depth = 0; depth < 63; ++depth) {
        ASSERT_EQ(makeDirectory(node, "d"), 0);
    }
    const auto deep = std::static_pointer_cast<DirectoryNode>(node);
    ASSERT_EQ(makeDirectory(store->root(), "one"), 0);
    const std::shared_ptr<Node> one = node;
    ASSERT_EQ(makeDirectory(store->root(), "two"), 0);
    ASSERT_EQ(makeDirectory(node, "inner"), 0);
    const auto moveDeep = [&](const std::string& name) {
        return ended([&](const Done& done) {
            store->rename(1, store->root(), name, deep, name, true, done);
        });
    };
    EXPECT_EQ(moveDeep("two"), ENAMETOOLONG);
    EXPECT_EQ(moveDeep("one"), 0);
    EXPECT_EQ(makeDirectory(one, "x"), ENAMETOOLONG);
}

TEST_F(StoreTest, ObjectsOfAUserAreBounded) {
    std::unique_ptr<OpenFile> file;
    int made = 0;
    while (made < 1000 && create(store->root(), {"o" + std::to_string(made), {}}, file) == 0) {
        ++made;
    }
    EXPECT_EQ(made, 100);
    EXPECT_EQ(create(store->root(), {"one more", {}}, file), EDQUOT);
    EXPECT_EQ(makeDirectory(store->root(), "folder"), EDQUOT);
    node.reset();
    ASSERT_EQ(removeObject("o1"), 0);
    EXPECT_EQ(makeDirectory(store->root(), "folder"), 0) << "room again";
}

TEST_F(StoreTest, OpenFilesOfAUserAreBounded) {
    create("obj");
    const std::shared_ptr<Node> object = node;
    std::vector<std::unique_ptr<OpenFile>> files(1);
    error = 0;
    while (files.size() < 1000) {
        error = open(object, {}, files.back(), {true, true, false, {1, 1, 1}});
        if (error != 0) {
            break;
        }
        files.emplace_back();
    }
    EXPECT_EQ(error, ENFILE);
    EXPECT_EQ(files.size(), 101U);
    EXPECT_EQ(open(object, {}, files.back(), {true, true, false, {2, 2, 2}}), 0) << "another user";
}

TEST_F(StoreTest, BytesOfAUserAreBoundedAndCountForWhoWroteThem) {
    const std::string large = "a::" + std::string(60000, 'x') + "\n";
    std::vector<std::unique_ptr<OpenFile>> files;
    error = 0;
    for (int i = 0; error == 0 && i < 100; ++i) {
        files.push_back(create("o" + std::to_string(i)));
        error = put(*files.back(), large, 5);
    }
    EXPECT_EQ(error, EDQUOT);
    EXPECT_EQ(files.size(), 1000000 / large.size() + 1);
    EXPECT_EQ(put(*files.back(), large, 6), 0) << "another user writes to the same object";
    EXPECT_EQ(put(*files[0], "a::" + std::string(60000, 'y') + "\n", 5), 0)
        << "no more than before";
    EXPECT_EQ(put(*files[0], "-a\n", 5), 0);
    EXPECT_EQ(put(*files[0], large, 5), 0) << "room again";
}

TEST_F(StoreTest, HalfReadTextIsSharedAndCountsOnceForItsUser) {
    const auto file = create("obj");
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(put(*file, "a" + std::to_string(i) + "::" + std::string(50000, 'x') + "\n"), 0);
    }
    const std::shared_ptr<Node> object = node;
    std::vector<std::unique_ptr<OpenFile>> readers;
    std::string bytes;
    for (int i = 0; i < 50; ++i) {
        readers.emplace_back();
        ASSERT_EQ(open(object, {}, readers.back()), 0);
        ASSERT_EQ(readers.back()->read(7, 100, bytes), ReadOutcome::kBytes);
    }
    EXPECT_LT(accounts.held(7, Holding::kMemory), 260000U);
    // Other versions are other texts.
    int versions = 1;
    for (ReadOutcome last = ReadOutcome::kBytes; last == ReadOutcome::kBytes && versions < 50;
         ++versions) {
        ASSERT_EQ(put(*file, "b::" + std::to_string(versions) + "\n"), 0);
        last = readers[static_cast<std::size_t>(versions)]->read(7, 1U << 20, bytes);
        ASSERT_EQ(last, ReadOutcome::kBytes) << "the rest of the first version";
        last = readers[static_cast<std::size_t>(versions)]->read(7, 100, bytes);
    }
    EXPECT_EQ(versions, 4) << "two texts of 250,000 bytes fit beside the first";
    readers.clear();
    EXPECT_EQ(accounts.held(7, Holding::kMemory), 0U);
}

TEST_F(StoreTest, ListingIsSharedUntilTheFolderChanges) {
    create("a");
    std::shared_ptr<Charge> charge;
    const auto first = store->list(*store->root(), 1, charge);
    EXPECT_EQ(store->list(*store->root(), 2, charge), first);
    const auto server = create("ipc?server");
    const auto second = store->list(*store->root(), 1, charge);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->entries.size(), first->entries.size() + 1);
}

// Otherwise whoever may read an object could spend the share of whoever writes it.
TEST_F(StoreTest, TextThatOthersAreInTheMiddleOfCountsForThemAlone) {
    const auto file = create("obj");
    const std::shared_ptr<Node> object = node;
    std::vector<std::unique_ptr<OpenFile>> readers(10);
    std::string bytes;
    for (auto& reader : readers) {
        ASSERT_EQ(
            put(*file,
                "a::" + std::to_string(&reader - readers.data()) + std::string(10000, 'x') + "\n",
                5),
            0);
        ASSERT_EQ(open(object, {}, reader), 0);
        ASSERT_EQ(reader->read(7, 100, bytes), ReadOutcome::kBytes);
    }
    EXPECT_LT(accounts.held(5, Holding::kStored), 10100U);
    EXPECT_GT(accounts.held(7, Holding::kMemory), 100000U);
}

TEST_F(StoreTest, RemovedObjectCountsForThoseWhoHaveItOpen) {
    const auto file = create("obj");
    ASSERT_EQ(put(*file, "a::" + std::string(10000, 'x') + "\n", 1), 0);
    const std::shared_ptr<Node> object = node;
    std::unique_ptr<OpenFile> reader;
    ASSERT_EQ(open(object, {}, reader, {true, false, false, {7, 7, 7}}), 0);
    ASSERT_EQ(removeObject("obj"), 0);
    EXPECT_EQ(accounts.held(1, Holding::kObjects), 0U);
    EXPECT_EQ(accounts.held(1, Holding::kStored), 0U);
    EXPECT_GT(accounts.held(7, Holding::kMemory), 10000U);
    EXPECT_EQ(put(*file, "b::1\n", 1), 0);
    EXPECT_EQ(read(*reader), "@obj\na::" + std::string(10000, 'x') + "\nb::1\n");
    reader.reset();
    EXPECT_EQ(accounts.held(7, Holding::kMemory), 0U);
}

TEST_F(StoreTest, RemovedObjectsTakeHalfOfTheMemoryOfWhoHasThemOpenAtTheMost) {
    std::vector<std::unique_ptr<OpenFile>> readers;
    for (int i = 0; i < 20; ++i) {
        const auto file = create("obj" + std::to_string(i));
        ASSERT_EQ(put(*file, "a::" + std::string(48000, 'x') + "\n", 1), 0);
        readers.emplace_back();
        ASSERT_EQ(open(node, {}, readers.back(), {true, false, false, {7, 7, 7}}), 0);
    }
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(removeObject("obj" + std::to_string(i)), 0);
    }
    EXPECT_LE(accounts.held(7, Holding::kMemory), 500000U);
    EXPECT_NE(read(*readers.front()), "nothing");
    EXPECT_EQ(read(*readers.back()), "nothing");
}

TEST_F(StoreTest, WriteToARemovedObjectThatNobodyHasRoomForIsRefused) {
    std::unique_ptr<OpenFile> file;
    create("obj").reset();
    ASSERT_EQ(open(node, {}, file, {true, true, false, {7, 7, 7}}), 0);
    ASSERT_EQ(removeObject("obj"), 0);
    ASSERT_EQ(put(*file, "a::1\n", 7), 0);
    Charge spent(accounts, 7, Holding::kMemory);
    ASSERT_TRUE(spent.grow(490000));
    EXPECT_EQ(put(*file, "b::" + std::string(50000, 'x') + "\n", 7), ENOBUFS);
    EXPECT_EQ(read(*file), "@obj\na::1\n");
}

TEST_F(StoreTest, TextOfARemovedObjectGoesWithTheLastWhoKeepsIt) {
    auto file = create("obj");
    ASSERT_EQ(put(*file, "a::" + std::string(10000, 'x') + "\n", 1), 0);
    file.reset();
    const std::shared_ptr<Node> object = node;
    Charge spent(accounts, 7, Holding::kMemory);
    ASSERT_TRUE(spent.grow(495000));
    std::unique_ptr<OpenFile> reader;
    std::unique_ptr<OpenFile> keeper;
    ASSERT_EQ(open(object, {}, reader, {true, false, false, {7, 7, 7}}), 0);
    ASSERT_EQ(open(object, {}, keeper, {true, false, false, {8, 8, 8}}), 0);
    ASSERT_EQ(removeObject("obj"), 0);
    EXPECT_TRUE(reader->readiness().readable);
    listener.told.clear();
    keeper.reset();
    EXPECT_EQ(read(*reader), "nothing");
    EXPECT_EQ(listener.told, std::vector<OpenFile*>{reader.get()});
}

TEST_F(StoreTest, ShrinkingAnothersObjectTakesNobodyPastAShare) {
    const auto file = create("obj");
    const std::string large = "a::" + std::string(60000, 'x') + "\n";
    ASSERT_EQ(put(*file, large, 5), 0);
    Charge spent(accounts, 6, Holding::kStored);
    ASSERT_TRUE(spent.grow(999999));
    EXPECT_EQ(put(*file, "a::" + std::string(50000, 'x') + "\n", 6), 0);
    EXPECT_EQ(accounts.held(6, Holding::kStored), 999999U);
    EXPECT_EQ(accounts.held(5, Holding::kStored), 50004U);
}

TEST_F(StoreTest, ChangesThatGoToTheDiskTogetherAreShownAtOnce) {
    const auto file = create("obj");
    ASSERT_EQ(store->startDiskThread(), 0);
    listener.told.clear();
    int done = 0;
    for (int i = 0; i < 10; ++i) {
        file->write(1, "a::" + std::to_string(i) + "\n", [&](int result) {
            EXPECT_EQ(result, 0);
            ++done;
        });
    }
    while (done < 10) {
        pollfd disk{store->diskDescriptor(), POLLIN, 0};
        ASSERT_EQ(poll(&disk, 1, 10000), 1);
        store->finishChanges();
    }
    EXPECT_EQ(listener.told.size(), 2U) << "the first alone, and those that waited meanwhile";
    EXPECT_EQ(read(*file), "@obj\na::9\n");
}

TEST_F(StoreTest, ObjectThatItsMakerCannotOpenIsNotMade) {
    Charge spent(accounts, 1, Holding::kFiles);
    ASSERT_TRUE(spent.grow(100));
    create("obj");
    EXPECT_EQ(error, ENFILE);
    EXPECT_EQ(store->find(*store->root(), "obj"), nullptr);
}

TEST_F(StoreTest, ListOfClientsCountsForWhoeverOpensIt) {
    const auto server = create("ipc?server");
    const std::shared_ptr<Node> served = node;
    std::vector<std::unique_ptr<OpenFile>> clients(50);
    for (auto& client : clients) {
        ASSERT_EQ(open(served, {}, client, {true, true, false, {5, 5, 5}}), 0);
    }
    OpenOptions options;
    options.clients = true;
    std::unique_ptr<OpenFile> list;
    const Store::Access access{true, false, false, {1, 1, 1}};
    ASSERT_EQ(open(served, options, list, access), 0);
    EXPECT_GT(accounts.held(1, Holding::kMemory), 1500U);
    read(*list);
    EXPECT_EQ(accounts.held(1, Holding::kMemory), 0U);
    Charge spent(accounts, 1, Holding::kMemory);
    ASSERT_TRUE(spent.grow(999000));
    EXPECT_EQ(open(served, options, list, access), ENOBUFS);
}
