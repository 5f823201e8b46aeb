// Served objects on a live mount: one server, its clients, and how they part.

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include "tests/integration/pps_files.hpp"
#include "tests/support/ppsd_mount.hpp"

namespace {

constexpr int kServer = O_RDWR | O_CREAT;
const std::string kEagain = std::string("errno: ") + std::strerror(EAGAIN);

class PpsdServed : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
        ASSERT_TRUE(m_ppsd.start()) << m_ppsd.output();
    }

    std::string path(const std::string& name = "/ipc") const { return m_ppsd.path(name); }
    std::string serverPath() const { return path("/ipc?server"); }

    // The tag "@ipc.ID" from a notice "+@ipc.ID\n..." or "-@ipc.ID\n".
    static std::string tagOf(const std::string& notice) {
        return notice.size() < 3 ? notice : notice.substr(1, notice.find('\n') - 1);
    }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST_F(PpsdServed, SecondServerGetsEbusy) {
    PpsFile server(serverPath(), kServer);
    EXPECT_EQ(server.error(), 0);
    EXPECT_EQ(PpsFile(serverPath(), kServer).error(), EBUSY);
    EXPECT_EQ(PpsFile(serverPath(), O_RDWR).error(), EBUSY);
}

TEST_F(PpsdServed, NextServerMayOpenAsSoonAsTheLastHasClosed) {
    for (int round = 0; round < 200; ++round) {
        ASSERT_EQ(PpsFile(serverPath(), kServer).error(), 0) << "round " << round;
    }
}

TEST_F(PpsdServed, OpenNeverOvertakesTheManyClosesBeforeIt) {
    constexpr int kServers = 64;
    std::vector<PpsFile> servers;
    for (int i = 0; i < kServers; ++i) {
        servers.emplace_back(path("/ipc" + std::to_string(i) + "?server"), kServer);
        ASSERT_EQ(servers.back().error(), 0);
    }
    kill(m_ppsd.pid(), SIGSTOP);  // so that all the closes are waiting when the open comes
    servers.clear();
    auto next = std::async(std::launch::async, [&] {
        return PpsFile(path("/ipc" + std::to_string(kServers - 1) + "?server"), kServer).error();
    });
    next.wait_for(std::chrono::milliseconds(kQuietMilliseconds));
    kill(m_ppsd.pid(), SIGCONT);
    EXPECT_EQ(next.get(), 0);
}

TEST_F(PpsdServed, NameExistsOnlyWhileItIsServed) {
    struct stat status {};
    {
        PpsFile server(serverPath(), kServer, 0666);
        ASSERT_EQ(chmod(path().c_str(), 0622), 0);
        ASSERT_EQ(stat(path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0622U);
        EXPECT_EQ(status.st_uid, geteuid());
        EXPECT_EQ(status.st_size, 0);
        ASSERT_EQ(fstat(server.fd(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0622U) << "the server's descriptor shows NAME";
    }
    EXPECT_EQ(stat(path().c_str(), &status), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(PpsFile(path(), O_RDWR).error(), ENOENT);
}

TEST_F(PpsdServed, ServedNameCannotBeRemovedOrReplaced) {
    PpsFile server(serverPath(), kServer);
    PpsFile(path("/other"), kServer);
    EXPECT_EQ(unlink(path().c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(rename(path().c_str(), path("/x").c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(rename(path("/other").c_str(), path().c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(mkdir(path().c_str(), 0755), -1);
    EXPECT_EQ(errno, EEXIST);
}

TEST_F(PpsdServed, StoredObjectStandsBehindItsServerAndComesBack) {
    PpsFile stored(path(), kServer);
    stored.write("a::1\n");
    {
        PpsFile server(serverPath(), kServer);
        ASSERT_EQ(server.error(), 0);
        PpsFile client(path(), O_RDWR);
        EXPECT_EQ(client.read(), "");
        client.write("b::2\n");
        EXPECT_EQ(server.read().substr(0, 2), "+@");
        EXPECT_TRUE(contains(server.read(), "b::2\n"));
    }
    EXPECT_EQ(PpsFile(path(), O_RDONLY).read(), "@ipc\na::1\n");
}

TEST_F(PpsdServed, ModeOfTheServedObjectIsNotThatOfTheStoredOneBehindIt) {
    PpsFile stored(path(), kServer, 0600);
    struct stat status {};
    {
        PpsFile server(serverPath(), kServer);
        EXPECT_EQ(fchmod(server.fd(), 0666), 0);
        ASSERT_EQ(stat(path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0666U);
    }
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(PpsdServed, KilledClientThatWaitsInReadIsClosed) {
    PpsFile server(serverPath(), kServer);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        PpsFile client(path("/ipc?wait"), O_RDWR);
        client.write("ready::1\n");
        client.read();
        _exit(0);
    }
    ASSERT_TRUE(server.becomesReadable());
    const std::string tag = tagOf(server.read());
    ASSERT_TRUE(server.becomesReadable());
    EXPECT_EQ(server.read(), tag + "\nready::1\n");
    usleep(kQuietMilliseconds * 1000);  // let it reach its read; before that, it proves less
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(server.read(), "-" + tag + "\n");
    EXPECT_EQ(server.write(tag + "\na::1\n"), 0);
}

TEST_F(PpsdServed, EpollReportsEachMessageUntilItIsRead) {
    PpsFile server(serverPath(), kServer);
    const int set = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    ASSERT_EQ(epoll_ctl(set, EPOLL_CTL_ADD, server.fd(), &event), 0);
    PpsFile client(path(), O_RDWR);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(epoll_wait(set, &event, 1, kPatienceMilliseconds), 1);
        EXPECT_EQ(epoll_wait(set, &event, 1, kPatienceMilliseconds), 1) << "level-triggered";
        server.read();
        EXPECT_EQ(epoll_wait(set, &event, 1, kQuietMilliseconds), 0);
        client.write("a::1\n");
    }
    close(set);
}

// Edge-triggered, a descriptor that is readable all the time is reported again only when somebody
// was woken for it.
TEST_F(PpsdServed, PollerIsNotWokenForTheMessagesOfOthers) {
    PpsFile server(serverPath(), kServer);
    PpsFile first(path(), O_RDWR);
    const std::string firstTag = tagOf(server.read());
    PpsFile second(path(), O_RDWR);
    const std::string secondTag = tagOf(server.read());
    const int set = epoll_create1(EPOLL_CLOEXEC);
    for (const PpsFile* file : {&server, &first, &second}) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.fd = file->fd();
        ASSERT_EQ(epoll_ctl(set, EPOLL_CTL_ADD, file->fd(), &event), 0);
    }
    const auto woken = [&] {
        epoll_event events[4];
        std::set<int> found;
        int wait = kPatienceMilliseconds;
        for (int count = 1; count > 0; wait = kQuietMilliseconds) {
            count = epoll_wait(set, events, 4, wait);
            for (int i = 0; i < count; ++i) {
                found.insert(events[i].data.fd);
            }
        }
        return found;
    };
    EXPECT_EQ(server.write(firstTag + "\na::1\n"), 0);
    EXPECT_EQ(woken(), std::set<int>{first.fd()});
    EXPECT_EQ(server.write(secondTag + "\na::1\n"), 0);
    EXPECT_EQ(woken(), std::set<int>{second.fd()});
    EXPECT_EQ(second.write("a::1\n"), 0);
    EXPECT_EQ(woken(), std::set<int>{server.fd()});
    close(set);
}

TEST_F(PpsdServed, ServerReadsOpeningMessagesAndClosingOneByOneOldestFirst) {
    PpsFile server(serverPath(), kServer);
    {
        PpsFile client(path(), O_RDWR);
        client.write("msg::one\nid::1\n");
        client.write("msg::two\n");
    }
    const std::string opened = server.read();
    const std::string tag = tagOf(opened);
    EXPECT_EQ(opened, "+" + tag + "\nuid:n:" + std::to_string(getuid()) + "\ngid:n:" +
                          std::to_string(getgid()) + "\npid:n:" + std::to_string(getpid()) + "\n");
    EXPECT_EQ(tag.substr(0, 5), "@ipc.");
    EXPECT_EQ(server.read(), tag + "\nmsg::one\nid::1\n");
    EXPECT_EQ(server.read(), tag + "\nmsg::two\n");
    EXPECT_EQ(server.read(), "-" + tag + "\n");
    EXPECT_EQ(server.read(), "");
}

TEST_F(PpsdServed, SilentClientThatTheServerHasNotHeardOfLeavesNoTrace) {
    PpsFile server(serverPath(), kServer);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(PpsFile(path(), O_RDWR).error(), 0);
    }
    EXPECT_EQ(server.events(), POLLOUT);
    PpsFile client(path(), O_RDWR);
    const std::string tag = tagOf(server.read());
    EXPECT_EQ(tag.substr(0, 5), "@ipc.");
    EXPECT_EQ(server.read(), "");
    client.shut();
    EXPECT_EQ(server.read(), "-" + tag + "\n") << "the server has heard of it";
}

TEST_F(PpsdServed, StormOfOneProcessDelaysAnotherByOneMessageAtATime) {
    PpsFile server(serverPath(), kServer);
    PpsFile quiet(path(), O_RDWR);
    const std::string tag = tagOf(server.read());
    const pid_t storm = fork();
    if (storm == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        PpsFile loud(path(), O_RDWR);
        for (int i = 0; i < 1000; ++i) {
            loud.write("storm::1\n");
            PpsFile(path(), O_RDWR).write("storm::2\n");
        }
        _exit(0);
    }
    int status = 0;
    waitpid(storm, &status, 0);
    ASSERT_EQ(status, 0);
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(quiet.write("quiet::1\n"), 0);
        EXPECT_NE(server.read(), tag + "\nquiet::1\n");
        EXPECT_EQ(server.read(), tag + "\nquiet::1\n") << "round " << round;
    }
}

TEST_F(PpsdServed, ConnectionIdsAreDecimalAndNeverUsedTwice) {
    std::set<std::string> tags;
    for (int round = 0; round < 3; ++round) {
        PpsFile server(serverPath(), kServer);
        for (int i = 0; i < 20; ++i) {
            PpsFile client(path(), O_RDWR);
            const std::string tag = tagOf(server.read());
            EXPECT_EQ(tag.substr(5).find_first_not_of("0123456789"), std::string::npos) << tag;
            EXPECT_TRUE(tags.insert(tag).second) << tag;
            client.shut();
            EXPECT_EQ(server.read(), "-" + tag + "\n");
        }
    }
}

TEST_F(PpsdServed, NobodyCanSpeakUnderAnothersTag) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    const std::string tag = tagOf(server.read());
    EXPECT_EQ(client.write("@ipc.99\na::1\n@ipc.98\nb::2\n"), 0);
    EXPECT_EQ(server.read(), tag + "\na::1\nb::2\n");
    EXPECT_EQ(client.write("a::1\n-@ipc.99\n"), EINVAL);
    EXPECT_EQ(client.write("+@ipc.99\n"), EINVAL);
    EXPECT_EQ(client.write("nonsense\n"), EINVAL);
    EXPECT_EQ(server.read(), "");
}

TEST_F(PpsdServed, WhatDoesNotFitTheServersBufferIsDiscarded) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    client.write("first::message\n");
    client.write("second::message\n");
    EXPECT_EQ(server.read(3), "+@i");
    EXPECT_EQ(server.read(4), "@ipc");
    EXPECT_TRUE(contains(server.read(), "\nsecond::message\n"));
    EXPECT_EQ(server.read(), "");
}

TEST_F(PpsdServed, NoticeThatDoesNotFitTheServersBufferIsNotContinued) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    EXPECT_EQ(server.read(8).substr(0, 6), "+@ipc.");
    EXPECT_EQ(server.read(), "") << "who opened is lost, and no line of it comes as a message";
    client.write("a::1\n");
    EXPECT_TRUE(contains(server.read(), "\na::1\n"));
    client.shut();
    EXPECT_EQ(server.read(2), "-@");
    EXPECT_EQ(server.read(), "");
}

TEST_F(PpsdServed, ServingTakesReadingAndWriting) {
    for (const int access : {O_RDONLY, O_WRONLY}) {
        EXPECT_EQ(PpsFile(serverPath(), access | O_CREAT).error(), EACCES);
    }
    EXPECT_EQ(PpsFile(path(), O_RDWR).error(), ENOENT) << "a refused server leaves nothing";
    PpsFile(path(), kServer).write("a::1\n");
    for (const int access : {O_RDONLY, O_WRONLY}) {
        EXPECT_EQ(PpsFile(serverPath(), access).error(), EACCES);
    }
    EXPECT_EQ(PpsFile(serverPath(), O_RDWR).error(), 0);
}

TEST_F(PpsdServed, TaggedWriteGoesToThatClientAlone) {
    PpsFile server(serverPath(), kServer);
    PpsFile first(path(), O_RDWR);
    PpsFile second(path(), O_RDWR);
    const std::string firstTag = tagOf(server.read());
    EXPECT_EQ(server.write(firstTag + "\nreply::x\n"), 0);
    EXPECT_EQ(first.read(), "@ipc\nreply::x\n");
    EXPECT_EQ(second.read(), "");
}

TEST_F(PpsdServed, UntaggedWriteGoesToEveryClientConnectedAtThatMoment) {
    PpsFile server(serverPath(), kServer);
    PpsFile first(path(), O_RDWR);
    PpsFile second(path(), O_RDONLY);
    EXPECT_EQ(server.write("@ipc\na::1\n"), 0);
    EXPECT_EQ(server.write("b::2\n"), 0);
    PpsFile late(path(), O_RDWR);
    for (PpsFile* client : {&first, &second}) {
        EXPECT_EQ(client->read(), "@ipc\na::1\n");
        EXPECT_EQ(client->read(), "@ipc\nb::2\n");
        EXPECT_EQ(client->read(), "");
    }
    EXPECT_EQ(late.read(), "");
}

TEST_F(PpsdServed, WriteToAClientThatIsGoneSucceedsAndIsDropped) {
    PpsFile server(serverPath(), kServer);
    PpsFile present(path(), O_RDWR);
    server.read();
    std::string goneTag;
    {
        PpsFile gone(path(), O_RDWR);
        goneTag = tagOf(server.read());
    }
    EXPECT_EQ(server.write(goneTag + "\na::1\n"), 0);
    EXPECT_EQ(server.write("@ipc.99999999999999999999999\na::1\n"), 0);
    EXPECT_EQ(present.read(), "");
}

TEST_F(PpsdServed, ServerWriteUnderAnotherNameOrMalformedGivesEinval) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    for (const char* bad :
         {"@other\na::1\n", "@ipc.\na::1\n", "@ipc.1x\na::1\n", "@ipcx.1\na::1\n", "@ipcx1\na::1\n",
          "a::1\n@ipc\n", "@ipc\nnonsense\n", "@ipc", "a::torn"}) {
        EXPECT_EQ(server.write(bad), EINVAL) << bad;
    }
    EXPECT_EQ(client.read(), "");
}

TEST_F(PpsdServed, ClientReadsAStreamOfWholeMessages) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    server.write("a::1\n");
    server.write("b::2\n");
    EXPECT_EQ(client.read(7), "@ipc\na:");
    EXPECT_EQ(client.read(), ":1\n");
    EXPECT_EQ(client.read(), "@ipc\nb::2\n");
}

TEST_F(PpsdServed, ClientWithWaitWaitsForTheServer) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path("/ipc?wait"), O_RDWR);
    auto waiting = std::async(std::launch::async, [&] { return client.read(); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(kQuietMilliseconds)),
              std::future_status::timeout);
    EXPECT_EQ(client.write("a::1\n"), 0) << "a waiting read must not block the same descriptor";
    server.write("r::1\n");
    EXPECT_EQ(waiting.get(), "@ipc\nr::1\n");
    fcntl(client.fd(), F_SETFL, O_NONBLOCK);
    EXPECT_EQ(client.read(), kEagain);
}

TEST_F(PpsdServed, ServerWithWaitWaitsForItsClients) {
    PpsFile server(path("/ipc?server,wait"), kServer);
    auto waiting = std::async(std::launch::async, [&] { return server.read(); });
    PpsFile client(path(), O_RDWR);
    EXPECT_EQ(waiting.get().substr(0, 6), "+@ipc.");
}

TEST_F(PpsdServed, ServersEndIsReadableExactlyWhileAMessageIsPending) {
    PpsFile server(serverPath(), kServer);
    EXPECT_EQ(server.events(), POLLOUT);
    PpsFile client(path(), O_RDWR);
    EXPECT_EQ(server.events(), POLLIN | POLLOUT);
    EXPECT_EQ(server.events(), POLLIN | POLLOUT);
    server.read();
    EXPECT_EQ(server.events(kQuietMilliseconds, POLLIN), 0);
    client.write("a::1\n");
    client.write("a::2\n");
    EXPECT_TRUE(server.becomesReadable());
    server.read(3);
    EXPECT_TRUE(server.becomesReadable()) << "the second message";
    server.read();
    EXPECT_EQ(server.events(kQuietMilliseconds, POLLIN), 0);
}

TEST_F(PpsdServed, SelectWakesTheServerForEachMessage) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    server.read();
    for (int round = 0; round < 20; ++round) {
        auto woken = std::async(std::launch::async, [&] {
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(server.fd(), &readable);
            timeval time{kPatienceMilliseconds / 1000, 0};
            return select(server.fd() + 1, &readable, nullptr, nullptr, &time);
        });
        client.write("a::1\n");
        ASSERT_EQ(woken.get(), 1);
        EXPECT_TRUE(contains(server.read(), "a::1\n"));
    }
}

TEST_F(PpsdServed, ClientReadsItsQueueThenTheNoticeThenTheEndWhenTheServerCloses) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    PpsFile waiting(path("/ipc?wait"), O_RDWR);
    server.write("a::1\n");
    EXPECT_EQ(client.read(3), "@ip");
    server.shut();
    EXPECT_EQ(client.events() & (POLLIN | POLLHUP), POLLIN | POLLHUP);
    EXPECT_EQ(client.write("b::2\n"), EPIPE);
    EXPECT_EQ(client.read(), "c\na::1\n");
    EXPECT_EQ(client.read(), "-@ipc\n");
    EXPECT_EQ(client.read(), "");
    EXPECT_EQ(client.events() & (POLLIN | POLLHUP), POLLIN | POLLHUP) << "the end stays readable";
    EXPECT_EQ(waiting.read(), "@ipc\na::1\n");
    EXPECT_EQ(waiting.read(), "-@ipc\n");
    EXPECT_EQ(waiting.read(), "") << "the end does not wait";
}

TEST_F(PpsdServed, ClientOfAKilledServerIsHungUpAndFindsTheNextServer) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const std::string object = serverPath();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int fd = open(object.c_str(), O_RDWR | O_CREAT, 0666);
        if (fd < 0 || write(ready[1], "x", 1) != 1) {
            _exit(1);
        }
        pause();
        _exit(0);
    }
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    PpsFile client(path("/ipc?wait"), O_RDWR);
    ASSERT_EQ(client.error(), 0);
    auto hungUp = std::async(std::launch::async, [&] {
        pollfd source{client.fd(), 0, 0};
        poll(&source, 1, kPatienceMilliseconds);
        return source.revents & POLLHUP;
    });
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(hungUp.get(), POLLHUP);
    EXPECT_EQ(client.read(), "-@ipc\n");
    EXPECT_EQ(client.read(), "");
    EXPECT_EQ(client.write("a::1\n"), EPIPE);
    EXPECT_EQ(PpsFile(path(), O_RDWR).error(), ENOENT);
    PpsFile next(serverPath(), kServer);
    ASSERT_EQ(next.error(), 0);
    PpsFile again(path(), O_RDWR);
    EXPECT_EQ(again.write("a::1\n"), 0);
    EXPECT_EQ(next.read().substr(0, 6), "+@ipc.");
}

TEST_F(PpsdServed, EveryWaiterOfAKilledServerIsLetGo) {
    int toServer[2];
    int fromServer[2];
    ASSERT_EQ(pipe(toServer), 0);
    ASSERT_EQ(pipe(fromServer), 0);
    const std::string object = serverPath();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        PpsFile server(object, kServer);
        char byte = 'x';
        if (server.error() != 0 || write(fromServer[1], &byte, 1) != 1 ||
            read(toServer[0], &byte, 1) != 1 || server.write("a::1\n") != 0 ||
            write(fromServer[1], &byte, 1) != 1) {
            _exit(1);
        }
        pause();
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(fromServer[0], &byte, 1), 1);
    PpsFile silent(path("/ipc?wait"), O_RDWR);
    PpsFile reader(path("/ipc?wait"), O_RDWR);
    PpsFile poller(path(), O_RDWR);
    ASSERT_EQ(write(toServer[1], &byte, 1), 1);
    ASSERT_EQ(read(fromServer[0], &byte, 1), 1);
    EXPECT_EQ(reader.read(), "@ipc\na::1\n");
    EXPECT_EQ(poller.read(), "@ipc\na::1\n");
    auto read = std::async(std::launch::async, [&] { return reader.read(); });
    auto polled = std::async(std::launch::async,
                             [&] { return poller.events(kPatienceMilliseconds, POLLIN); });
    EXPECT_EQ(read.wait_for(std::chrono::milliseconds(kQuietMilliseconds)),
              std::future_status::timeout);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(read.get(), "-@ipc\n");
    EXPECT_EQ(reader.read(), "");
    EXPECT_EQ(polled.get(), POLLIN | POLLHUP);
    EXPECT_EQ(poller.read(), "-@ipc\n");
    EXPECT_EQ(poller.read(), "");
    EXPECT_EQ(silent.read(), "@ipc\na::1\n") << "what was queued comes first";
    EXPECT_EQ(silent.read(), "-@ipc\n");
    EXPECT_EQ(silent.read(), "");
    for (const int end : {toServer[0], toServer[1], fromServer[0], fromServer[1]}) {
        close(end);
    }
}

TEST_F(PpsdServed, WaitingReadEndsWithTheNoticeWhenTheServerCloses) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path("/ipc?wait"), O_RDWR);
    auto waiting = std::async(std::launch::async, [&] { return client.read(); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(kQuietMilliseconds)),
              std::future_status::timeout);
    server.shut();
    EXPECT_EQ(waiting.get(), "-@ipc\n");
}

TEST_F(PpsdServed, ListOfClientsFollowsWhoComesAndGoes) {
    PpsFile server(serverPath(), kServer);
    const auto list = [&] { return PpsFile(path("/ipc?clients"), O_RDONLY).read(); };
    const auto lineOf = [](const std::string& tag) {
        return tag.substr(5) + ":json:{\"uid\":" + std::to_string(getuid()) +
               ",\"gid\":" + std::to_string(getgid()) + ",\"pid\":" + std::to_string(getpid()) +
               "}\n";
    };
    EXPECT_EQ(list(), "@ipc\n");
    PpsFile first(path(), O_RDWR);
    const std::string firstLine = lineOf(tagOf(server.read()));
    PpsFile second(path(), O_RDONLY);
    const std::string secondLine = lineOf(tagOf(server.read()));
    EXPECT_EQ(list(), "@ipc\n" + firstLine + secondLine);
    PpsFile kept(path("/ipc?clients"), O_RDONLY);
    first.shut();
    EXPECT_EQ(list(), "@ipc\n" + secondLine);
    EXPECT_EQ(server.read()[0], '-') << "whoever asks for the list is no client";
    EXPECT_EQ(server.read(), "");
    EXPECT_EQ(kept.read(5), "@ipc\n");
    EXPECT_EQ(kept.read(), firstLine + secondLine) << "as it was at the opening";
    EXPECT_EQ(kept.read(), "");
    EXPECT_EQ(PpsFile(path("/ipc?clients"), O_RDWR).error(), EACCES);
    EXPECT_EQ(PpsFile(path("/ipc?clients"), O_WRONLY).error(), EACCES);
}

TEST_F(PpsdServed, ListOfClientsTakesAServer) {
    EXPECT_EQ(PpsFile(path("/ipc?clients"), O_RDONLY).error(), ENOENT);
    EXPECT_EQ(PpsFile(path("/ipc?clients"), kServer).error(), ENOENT);
    PpsFile(path(), kServer).write("a::1\n");
    EXPECT_EQ(PpsFile(path("/ipc?clients"), O_RDONLY).error(), ENOENT);
    PpsFile(serverPath(), kServer);
    EXPECT_EQ(PpsFile(path("/ipc?clients"), O_RDONLY).error(), ENOENT);
}

TEST_F(PpsdServed, TruncatingClientsHarmNobody) {
    PpsFile server(serverPath(), kServer);
    EXPECT_EQ(std::system(("echo a::1 > " + path()).c_str()), 0);
    const std::string tag = tagOf(server.read());
    EXPECT_EQ(server.read(), tag + "\na::1\n");
    EXPECT_EQ(server.read(), "-" + tag + "\n");
}

TEST_F(PpsdServed, ShellReadsLinesOfAStreamOneByOne) {
    PpsFile server(serverPath(), kServer);
    auto shell = std::async(std::launch::async, [&] {
        return std::system(("exec 3<>'" + path("/ipc?wait") +
                            "'; read a <&3; read b <&3; read c <&3; "
                            "test \"$a $b $c\" = '@ipc a::1 b::2'")
                               .c_str());
    });
    ASSERT_TRUE(server.becomesReadable());
    server.write("a::1\nb::2\n");
    EXPECT_EQ(shell.get(), 0);
}

TEST_F(PpsdServed, ServersAndClientsMayComeAndGoAtAHighRate) {
    std::atomic<bool> stop{false};
    std::atomic<int> connected{0};
    std::atomic<int> unexpected{0};
    std::thread clients([&] {
        while (!stop) {
            PpsFile client(path(), O_RDWR);
            if (client.error() == 0) {
                const int error = client.write("a::1\n");
                unexpected += error != 0 && error != EPIPE;
                ++connected;
            } else {
                unexpected += client.error() != ENOENT;
            }
        }
    });
    for (int round = 0; round < 2000; ++round) {
        PpsFile server(serverPath(), kServer);
        unexpected += server.error() != 0;
        server.write("b::1\n");
        server.read();
    }
    while (connected == 0) {
        PpsFile server(serverPath(), kServer);
        std::this_thread::yield();
    }
    stop = true;
    clients.join();
    EXPECT_EQ(unexpected, 0);
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    EXPECT_EQ(client.write("a::1\n"), 0);
}

TEST_F(PpsdServed, ThreeHundredClientsAreServed) {
    constexpr int kClients = 300;
    PpsFile server(serverPath(), kServer);
    std::vector<PpsFile> clients;
    std::vector<std::string> tags;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(path(), O_RDWR | O_NONBLOCK);
        ASSERT_EQ(clients.back().error(), 0);
        tags.push_back(tagOf(server.read()));
    }
    EXPECT_EQ(server.write("all::1\n"), 0);
    for (std::size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(clients[i].write("n:n:" + std::to_string(i) + "\n"), 0);
        EXPECT_EQ(server.read(), tags[i] + "\nn:n:" + std::to_string(i) + "\n");
        EXPECT_EQ(server.write(tags[i] + "\nown:n:" + std::to_string(i) + "\n"), 0);
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(clients[i].read(), "@ipc\nall::1\n");
        EXPECT_EQ(clients[i].read(), "@ipc\nown:n:" + std::to_string(i) + "\n");
    }
}
