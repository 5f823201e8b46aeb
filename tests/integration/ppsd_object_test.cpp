// Ordinary objects on a live mount.

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include "ppsd/store/limits.hpp"
#include "tests/integration/pps_files.hpp"
#include "tests/support/ppsd_mount.hpp"

namespace {

class PpsdObject : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
        ASSERT_TRUE(m_ppsd.start()) << m_ppsd.output();
    }

    std::string path(const std::string& name = "/obj") const { return m_ppsd.path(name); }

    // The object's text as a fresh descriptor reads it.
    std::string text(const std::string& name = "/obj") const {
        return PpsFile(path(name), O_RDONLY).read();
    }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
    int m_readWriteCreate = O_RDWR | O_CREAT;
};

}  // namespace

TEST_F(PpsdObject, ReadGivesTheObjectLineAndTheAttributesInTheOrderOfTheirFirstWrite) {
    PpsFile file(path(), m_readWriteCreate);
    EXPECT_EQ(file.write("b::1\na:n:2\n"), 0);
    EXPECT_EQ(file.write("c:json:{}\nb:b:true\n"), 0);
    EXPECT_EQ(file.read(), "@obj\nb:b:true\na:n:2\nc:json:{}\n");
}

TEST_F(PpsdObject, ObjectWithoutAttributesReadsAsNothing) {
    PpsFile file(path(), m_readWriteCreate);
    EXPECT_EQ(file.read(), "");
}

TEST_F(PpsdObject, NameInTheTextIsTheLastPathComponent) {
    ASSERT_EQ(mkdir(path("/folder").c_str(), 0755), 0);
    PpsFile(path("/folder/inner"), m_readWriteCreate).write("a::1\n");
    EXPECT_EQ(text("/folder/inner"), "@inner\na::1\n");
}

TEST_F(PpsdObject, OneReadGivesTheWholeTextWhateverTheOffset) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\n");
    char bytes[64];
    EXPECT_EQ(std::string(bytes, static_cast<std::size_t>(pread(file.fd(), bytes, 64, 4000))),
              "@obj\na::1\n");
}

TEST_F(PpsdObject, SmallBufferGetsTheRestWithItsNextReads) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\n");
    EXPECT_EQ(file.read(7), "@obj\na:");
    EXPECT_EQ(file.read(7), ":1\n");
    EXPECT_EQ(file.read(7), "");
}

TEST_F(PpsdObject, TextThatWasBegunIsReadToItsEndBeforeTheChangedOne) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\n");
    EXPECT_EQ(file.read(7), "@obj\na:");
    file.write("a::2\n");
    EXPECT_EQ(file.read(), ":1\n");
    EXPECT_EQ(file.events() & POLLIN, POLLIN);
    EXPECT_EQ(file.read(), "@obj\na::2\n");
    EXPECT_EQ(file.read(), "");
}

TEST_F(PpsdObject, ChangeThatWasTakenBackIsAChangeForAReaderButNoDifference) {
    PpsFile writer(path(), m_readWriteCreate);
    writer.write("a::1\n");
    PpsFile whole(path(), O_RDONLY);
    PpsFile delta(path("/obj?delta"), O_RDONLY);
    whole.read();
    delta.read();
    writer.write("a::2\n");
    writer.write("a::1\n");
    EXPECT_EQ(whole.read(), "@obj\na::1\n");
    EXPECT_EQ(delta.events() & POLLIN, 0);
    EXPECT_EQ(delta.read(), "");
}

TEST_F(PpsdObject, GatheredWriteIsOneWrite) {
    PpsFile file(path(), m_readWriteCreate);
    char name[] = "a::";
    char value[] = "1\nb::2";
    char feed[] = "\n";
    const iovec parts[] = {{name, 3}, {value, 6}, {feed, 1}};
    EXPECT_EQ(writev(file.fd(), parts, 3), 10);
    EXPECT_EQ(text(), "@obj\na::1\nb::2\n");
}

TEST_F(PpsdObject, ReadGivesNothingUntilTheObjectChangesAndThenTheWholeTextAnew) {
    PpsFile reader(path(), m_readWriteCreate);
    PpsFile writer(path(), O_WRONLY);
    writer.write("a::1\nb::2\n");
    EXPECT_EQ(reader.read(), "@obj\na::1\nb::2\n");
    EXPECT_EQ(reader.read(), "");
    writer.write("b::3\n");
    EXPECT_EQ(reader.read(), "@obj\na::1\nb::3\n");
    EXPECT_EQ(reader.read(), "");
}

TEST_F(PpsdObject, ChangeBeforeTheFirstReadIsPartOfIt) {
    PpsFile writer(path(), m_readWriteCreate);
    writer.write("a::1\n");
    PpsFile reader(path(), O_RDONLY);
    writer.write("a::2\n");
    EXPECT_EQ(reader.read(), "@obj\na::2\n");
    EXPECT_EQ(reader.read(), "");
}

TEST_F(PpsdObject, WriteReplacesAddsAndRemovesAttributes) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\nb::2\nc::3\n");
    EXPECT_EQ(file.write("-b\na:n:9\nd::4\n-unknown\n"), 0);
    EXPECT_EQ(file.read(), "@obj\na:n:9\nc::3\nd::4\n");
}

TEST_F(PpsdObject, LeadingObjectLineIsIgnoredWhateverItNames) {
    PpsFile file(path(), m_readWriteCreate);
    EXPECT_EQ(file.write("@other\na::1\n"), 0);
    EXPECT_EQ(file.read(), "@obj\na::1\n");
}

TEST_F(PpsdObject, OffsetOfAWriteIsIgnored) {
    PpsFile file(path(), m_readWriteCreate);
    EXPECT_EQ(pwrite(file.fd(), "a::1\n", 5, 100000), 5);
    PpsFile(path(), O_WRONLY | O_APPEND).write("b::2\n");
    EXPECT_EQ(file.read(), "@obj\na::1\nb::2\n");
}

TEST_F(PpsdObject, MalformedLineGivesEinvalAndChangesNothing) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\n");
    for (const std::string bad : {"b::2\nnonsense\n", "b::2\n\n", "b::2\n:n:3\n", "b::2\n@obj\n",
                                  "b::2\n-@obj\n", "b::2\n-\n", "b::2\nc::torn"}) {
        EXPECT_EQ(file.write(bad), EINVAL) << bad;
    }
    EXPECT_EQ(text(), "@obj\na::1\n");
}

TEST_F(PpsdObject, WriteOf64KiBIsTakenAndOneByteMoreGivesEmsgsize) {
    PpsFile file(path(), m_readWriteCreate);
    const std::string largest = "a::" + std::string(64 * 1024 - 4, 'x') + "\n";
    EXPECT_EQ(file.write(largest), 0);
    EXPECT_EQ(file.write("b::" + std::string(64 * 1024 - 3, 'y') + "\n"), EMSGSIZE);
    EXPECT_EQ(file.write("b::" + std::string(3 * 1024 * 1024, 'y') + "\n"), EMSGSIZE);
    EXPECT_EQ(text(), "@obj\n" + largest);
}

TEST_F(PpsdObject, ObjectOfManyWritesReadsInOneRead) {
    PpsFile file(path(), m_readWriteCreate);
    std::string whole = "@obj\n";
    for (const char name : {'a', 'b', 'c', 'd', 'e', 'f'}) {
        const std::string line = name + ("::" + std::string(60000, name)) + "\n";
        ASSERT_EQ(file.write(line), 0);
        whole += line;
    }
    EXPECT_EQ(text(), whole);
}

TEST_F(PpsdObject, ObjectCannotGrowBeyondOneMiB) {
    PpsFile file(path(), m_readWriteCreate);
    int error = 0;
    int writes = 0;
    while (error == 0 && writes < 100) {
        error = file.write("a" + std::to_string(writes++) + "::" + std::string(65000, 'x') + "\n");
    }
    EXPECT_EQ(error, ENOSPC);
    EXPECT_EQ(writes, 17);
}

TEST_F(PpsdObject, LargestObjectIsOneReadThatDoesNotWaitWhateverTheBuffer) {
    PpsFile file(path(), m_readWriteCreate);
    std::size_t left = kObjectTextMaxBytes - (sizeof "@obj\n" - 1);
    for (char name = 'a'; left > 0; ++name) {
        const std::size_t size = left > 60000 ? 50000 : left;
        ASSERT_EQ(file.write(name + ("::" + std::string(size - 4, 'x')) + "\n"), 0);
        left -= size;
    }
    EXPECT_EQ(file.write("z::\n"), ENOSPC) << "it is the largest";
    alarm(10);  // ends the test should a read wait
    constexpr std::size_t kSpace = 4 * kObjectTextMaxBytes;
    void* pages = mmap(nullptr, kSpace, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    for (const std::size_t start : {0U, 1U, 4095U}) {
        PpsFile reader(path("/obj?wait"), O_RDONLY);
        EXPECT_EQ(read(reader.fd(), static_cast<char*>(pages) + start, kSpace - start),
                  static_cast<ssize_t>(kObjectTextMaxBytes))
            << start;
    }
    munmap(pages, kSpace);
    alarm(0);
}

TEST_F(PpsdObject, OpenWithoutCreatingGivesEnoent) {
    EXPECT_EQ(PpsFile(path(), O_RDWR).error(), ENOENT);
}

TEST_F(PpsdObject, ExclusiveCreationOfAnExistingObjectGivesEexist) {
    PpsFile file(path(), m_readWriteCreate);
    EXPECT_EQ(PpsFile(path(), m_readWriteCreate | O_EXCL).error(), EEXIST);
}

TEST_F(PpsdObject, TruncationRemovesAllAttributes) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\n");
    PpsFile(path(), O_WRONLY | O_TRUNC);
    EXPECT_EQ(text(), "");
    file.write("a::1\n");
    EXPECT_EQ(truncate(path().c_str(), 0), 0);
    EXPECT_EQ(text(), "");
    EXPECT_EQ(truncate(path().c_str(), 5), -1);
}

TEST_F(PpsdObject, UnknownOptionGivesEinval) {
    PpsFile file(path(), m_readWriteCreate);
    for (const char* options : {"?bogus", "?", "?wait,", "?wait,bogus", "?wait?delta"}) {
        EXPECT_EQ(PpsFile(path("/obj") + options, O_RDWR).error(), EINVAL) << options;
        EXPECT_EQ(PpsFile(path("/new") + options, m_readWriteCreate).error(), EINVAL) << options;
    }
    EXPECT_EQ(PpsFile(path("/new"), O_RDWR).error(), ENOENT);
}

TEST_F(PpsdObject, ListingShowsNamesWithoutOptions) {
    PpsFile first(path("/a?wait,delta"), m_readWriteCreate);
    PpsFile second(path("/b?delta"), m_readWriteCreate);
    PpsFile served(path("/c?server"), m_readWriteCreate);
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path(""))) {
        names.insert(entry.path().filename().string());
    }
    EXPECT_EQ(names, (std::set<std::string>{"a", "b", "c"}));
}

TEST_F(PpsdObject, LargeFolderIsListedWhole) {
    constexpr int kEntries = 700;
    for (int i = 0; i < kEntries; ++i) {
        ASSERT_EQ(mkdir(path("/a-folder-with-a-longer-name-" + std::to_string(i)).c_str(), 0755),
                  0);
    }
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path(""))) {
        EXPECT_TRUE(entry.is_directory());
        ++count;
    }
    EXPECT_EQ(count, kEntries);
}

TEST_F(PpsdObject, WaitingReadReturnsWithTheChange) {
    PpsFile reader(path("/obj?wait"), m_readWriteCreate);
    auto waiting = std::async(std::launch::async, [&] { return reader.read(); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(kQuietMilliseconds)),
              std::future_status::timeout);
    PpsFile(path(), O_WRONLY).write("a::1\n");
    EXPECT_EQ(waiting.get(), "@obj\na::1\n");
}

TEST_F(PpsdObject, WaitGivesEagainWithNonBlockingAndFollowsTheCurrentFlag) {
    PpsFile reader(path("/obj?wait"), m_readWriteCreate | O_NONBLOCK);
    EXPECT_EQ(reader.read(), std::string("errno: ") + std::strerror(EAGAIN));
    PpsFile later(path("/obj?wait"), O_RDONLY);
    fcntl(later.fd(), F_SETFL, O_NONBLOCK);
    EXPECT_EQ(later.read(), std::string("errno: ") + std::strerror(EAGAIN));
}

TEST_F(PpsdObject, SignalEndsAWaitingReadWithEintr) {
    PpsFile reader(path("/obj?wait"), m_readWriteCreate);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);  // without SA_RESTART
    alarm(1);
    EXPECT_EQ(reader.read(), std::string("errno: ") + std::strerror(EINTR));
    PpsFile(path(), O_WRONLY).write("a::1\n");
    EXPECT_EQ(reader.read(), "@obj\na::1\n") << "the interrupted read must not have eaten it";
}

TEST_F(PpsdObject, ManyWaitingReadersAreServedAtOnceAndHoldNobodyUp) {
    constexpr int kReaders = 40;
    PpsFile writer(path(), m_readWriteCreate);
    std::vector<std::future<std::string>> waiting;
    for (int i = 0; i < kReaders; ++i) {
        waiting.push_back(std::async(std::launch::async,
                                     [&] { return PpsFile(path("/obj?wait"), O_RDONLY).read(); }));
    }
    EXPECT_EQ(writer.write("a::1\n"), 0);
    for (auto& reader : waiting) {
        EXPECT_EQ(reader.get(), "@obj\na::1\n");
    }
}

TEST_F(PpsdObject, DeltaGivesOnlyWhatChangedSinceTheLastRead) {
    PpsFile writer(path(), m_readWriteCreate);
    writer.write("a::1\nb::2\nc::3\n");
    PpsFile delta(path("/obj?delta"), O_RDONLY);
    EXPECT_EQ(delta.read(), "@obj\na::1\nb::2\nc::3\n");
    EXPECT_EQ(delta.read(), "");
    writer.write("b::9\n");
    writer.write("-a\nd::4\n");
    EXPECT_EQ(delta.read(), "@obj\nb::9\nd::4\n-a\n");
    EXPECT_EQ(delta.read(), "");
}

TEST_F(PpsdObject, DeltaTellsOfTheRemovalOfAllAttributes) {
    PpsFile writer(path(), m_readWriteCreate);
    writer.write("a::1\n");
    PpsFile delta(path("/obj?delta"), O_RDONLY);
    delta.read();
    PpsFile(path(), O_WRONLY | O_TRUNC);
    EXPECT_TRUE(delta.becomesReadable());
    EXPECT_EQ(delta.read(), "@obj\n-a\n");
}

TEST_F(PpsdObject, DeltaWithWaitWaitsForTheNextChange) {
    PpsFile writer(path(), m_readWriteCreate);
    writer.write("a::1\nb::2\n");
    PpsFile delta(path("/obj?delta,wait"), O_RDONLY);
    EXPECT_EQ(delta.read(), "@obj\na::1\nb::2\n");
    auto waiting = std::async(std::launch::async, [&] { return delta.read(); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(kQuietMilliseconds)),
              std::future_status::timeout);
    writer.write("b::3\n");
    EXPECT_EQ(waiting.get(), "@obj\nb::3\n");
}

TEST_F(PpsdObject, PollIsReadableExactlyWhileAReadWouldGiveBytes) {
    PpsFile writer(path(), m_readWriteCreate);
    PpsFile reader(path(), O_RDONLY);
    EXPECT_EQ(reader.events(), POLLOUT) << "an object without attributes";
    writer.write("a::1\n");
    EXPECT_EQ(reader.events(), POLLIN | POLLOUT);
    EXPECT_EQ(reader.events(), POLLIN | POLLOUT) << "level-triggered";
    reader.read(3);
    EXPECT_EQ(reader.events(), POLLIN | POLLOUT) << "the rest of the text";
    reader.read();
    EXPECT_EQ(reader.events(kQuietMilliseconds, POLLIN), 0);
    writer.write("a::1\n");
    EXPECT_EQ(reader.events(kQuietMilliseconds, POLLIN), 0) << "nothing has changed";
}

TEST_F(PpsdObject, PollWakesWithTheChange) {
    PpsFile writer(path(), m_readWriteCreate);
    PpsFile reader(path(), O_RDONLY);
    for (int round = 0; round < 3; ++round) {
        auto woken = std::async(std::launch::async, [&] { return reader.becomesReadable(); });
        writer.write("a::" + std::to_string(round) + "\n");
        EXPECT_TRUE(woken.get());
        reader.read();
    }
}

// Edge-triggered, a descriptor that is readable all the time is reported again only when somebody
// was woken for it.
TEST_F(PpsdObject, PollerIsNotWokenForWhatDoesNotConcernIt) {
    PpsFile writer(path(), m_readWriteCreate);
    PpsFile otherWriter(path("/other"), m_readWriteCreate);
    writer.write("a::1\n");
    PpsFile reader(path(), O_RDONLY);
    PpsFile otherReader(path("/other"), O_RDONLY);
    const int set = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    for (const PpsFile* file : {&reader, &otherReader}) {
        event.data.fd = file->fd();
        ASSERT_EQ(epoll_ctl(set, EPOLL_CTL_ADD, file->fd(), &event), 0);
    }
    ASSERT_EQ(epoll_wait(set, &event, 1, kPatienceMilliseconds), 1);
    EXPECT_EQ(event.data.fd, reader.fd());
    EXPECT_EQ(epoll_wait(set, &event, 1, kQuietMilliseconds), 0);
    otherWriter.write("a::1\n");
    ASSERT_EQ(epoll_wait(set, &event, 1, kPatienceMilliseconds), 1);
    EXPECT_EQ(event.data.fd, otherReader.fd());
    EXPECT_EQ(epoll_wait(set, &event, 1, kQuietMilliseconds), 0);
    writer.write("a::1\n");
    chmod(path().c_str(), 0600);
    EXPECT_EQ(epoll_wait(set, &event, 1, kQuietMilliseconds), 0) << "the same text as before";
    writer.write("a::2\n");
    ASSERT_EQ(epoll_wait(set, &event, 1, kPatienceMilliseconds), 1);
    EXPECT_EQ(event.data.fd, reader.fd());
    close(set);
}

TEST_F(PpsdObject, SelectSeesReadableAndWritable) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\n");
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    FD_SET(file.fd(), &readable);
    FD_SET(file.fd(), &writable);
    timeval time{1, 0};
    EXPECT_EQ(select(file.fd() + 1, &readable, &writable, nullptr, &time), 2);
}

TEST_F(PpsdObject, UnlinkedObjectIsGoneAndItsOpenDescriptorsLiveOn) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\n");
    EXPECT_EQ(unlink(path().c_str()), 0);
    EXPECT_EQ(PpsFile(path(), O_RDONLY).error(), ENOENT);
    EXPECT_EQ(file.write("b::2\n"), 0);
    EXPECT_EQ(file.read(), "@obj\na::1\nb::2\n");
    PpsFile(path(), m_readWriteCreate).write("new::1\n");
    EXPECT_EQ(text(), "@obj\nnew::1\n");
}

TEST_F(PpsdObject, RenamedObjectKeepsItsDescriptorsAndTakesItsNewName) {
    PpsFile file(path(), m_readWriteCreate);
    file.write("a::1\n");
    ASSERT_EQ(mkdir(path("/folder").c_str(), 0755), 0);
    EXPECT_EQ(rename(path().c_str(), path("/folder/other").c_str()), 0);
    EXPECT_EQ(PpsFile(path(), O_RDONLY).error(), ENOENT);
    EXPECT_EQ(file.write("b::2\n"), 0);
    EXPECT_EQ(text("/folder/other"), "@other\na::1\nb::2\n");
}

TEST_F(PpsdObject, RenameReplacesAnObjectAndAnEmptyFolderOnly) {
    PpsFile(path("/a"), m_readWriteCreate).write("a::1\n");
    PpsFile(path("/b"), m_readWriteCreate).write("b::1\n");
    EXPECT_EQ(rename(path("/a").c_str(), path("/b").c_str()), 0);
    EXPECT_EQ(text("/b"), "@b\na::1\n");
    for (const char* folder : {"/one", "/two", "/two/inner"}) {
        ASSERT_EQ(mkdir(path(folder).c_str(), 0755), 0);
    }
    EXPECT_EQ(rename(path("/one").c_str(), path("/two").c_str()), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_EQ(rename(path("/two").c_str(), path("/one").c_str()), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("/one/inner")));
    EXPECT_FALSE(std::filesystem::exists(path("/two")));
}

TEST_F(PpsdObject, FoldersAreMadeAndRemovedAsAnywhere) {
    EXPECT_EQ(mkdir(path("/folder").c_str(), 0750), 0);
    EXPECT_EQ(mkdir(path("/folder").c_str(), 0750), -1);
    EXPECT_EQ(errno, EEXIST);
    PpsFile file(path("/folder/obj"), m_readWriteCreate);
    EXPECT_EQ(rmdir(path("/folder").c_str()), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_EQ(unlink(path("/folder/obj").c_str()), 0);
    EXPECT_EQ(rmdir(path("/folder").c_str()), 0);
    EXPECT_EQ(PpsFile(path("/folder/obj"), m_readWriteCreate).error(), ENOENT);
}

TEST_F(PpsdObject, NameOf255BytesIsAnObjectWithOptionsToo) {
    const std::string name = "/" + std::string(255, 'n');
    PpsFile(path(name), m_readWriteCreate).write("a::1\n");
    EXPECT_EQ(PpsFile(path(name + "?delta,wait"), O_RDONLY).read(),
              "@" + name.substr(1) + "\na::1\n");
    EXPECT_EQ(PpsFile(path(name + "n"), m_readWriteCreate).error(), ENAMETOOLONG);
}

TEST_F(PpsdObject, OptionsHaveNoPlaceInNamesThatAreMadeMovedOrRemoved) {
    PpsFile(path(), m_readWriteCreate).write("a::1\n");
    ASSERT_EQ(mkdir(path("/folder").c_str(), 0755), 0);
    const auto refused = [](int result) { return result == -1 ? errno : 0; };
    struct stat status {};
    EXPECT_EQ(refused(stat(path("/folder?wait").c_str(), &status)), EINVAL);
    EXPECT_EQ(refused(mkdir(path("/new?wait").c_str(), 0755)), EINVAL);
    EXPECT_EQ(refused(mknod(path("/new?wait").c_str(), S_IFREG | 0644, 0)), EINVAL);
    EXPECT_EQ(refused(rename(path("/obj").c_str(), path("/new?wait").c_str())), EINVAL);
    EXPECT_EQ(refused(rename(path("/obj?wait").c_str(), path("/new").c_str())), EINVAL);
    EXPECT_EQ(refused(unlink(path("/obj?wait").c_str())), EINVAL);
    EXPECT_EQ(text(), "@obj\na::1\n");
}

TEST_F(PpsdObject, ObjectIsMadeByMknodAndNothingElseThanObjectsAndFolders) {
    EXPECT_EQ(mknod(path().c_str(), S_IFREG | 0640, 0), 0);
    EXPECT_EQ(text(), "");
    EXPECT_EQ(mkfifo(path("/fifo").c_str(), 0644), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(PpsdObject, NameWithALineFeedIsRefused) {
    EXPECT_EQ(PpsFile(path("/a\nb::2"), m_readWriteCreate).error(), EINVAL);
    EXPECT_EQ(mkdir(path("/a\nb").c_str(), 0755), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(PpsdObject, StatShowsTheSizeOfTheTextAndTheAliasShowsItsObject) {
    PpsFile file(path(), m_readWriteCreate, 0640);
    file.write("a::1\n");
    ASSERT_EQ(chmod(path("/obj?wait").c_str(), 0600), 0);
    struct stat object {};
    struct stat alias {};
    ASSERT_EQ(stat(path().c_str(), &object), 0);
    ASSERT_EQ(stat(path("/obj?delta").c_str(), &alias), 0);
    EXPECT_EQ(object.st_size, 10);
    EXPECT_EQ(object.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(alias.st_mode, object.st_mode);
    EXPECT_EQ(alias.st_ino, object.st_ino);
}

TEST_F(PpsdObject, ShellCommandsWork) {
    const std::string folder = "cd " + path("") + " && ";
    EXPECT_EQ(std::system((folder + "echo a::1 > obj && echo b::2 >> obj").c_str()), 0);
    EXPECT_EQ(
        std::system((folder + "test \"$(cat obj)\" = \"$(printf '@obj\\na::1\\nb::2')\"").c_str()),
        0);
    EXPECT_EQ(std::system((folder + "mv obj o2 && rm o2 && test -z \"$(ls)\"").c_str()), 0);
}

TEST_F(PpsdObject, ConcurrentWritersLoseNothing) {
    constexpr int kWriters = 4;
    constexpr int kWrites = 25;
    PpsFile file(path(), m_readWriteCreate);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([&, writer] {
            PpsFile own(path(writer % 2 == 0 ? "/obj" : "/obj?delta"), O_WRONLY);
            for (int i = 0; i < kWrites; ++i) {
                EXPECT_EQ(
                    own.write("w" + std::to_string(writer) + "x" + std::to_string(i) + "::1\n"), 0);
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    const std::string all = text();
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1 + kWriters * kWrites);
}
