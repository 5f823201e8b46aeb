// The one descriptor that stands for the sockets of all ports.

#include "agent/process/port_watch.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace {

class PortWatchTest : public ::testing::Test {
  protected:
    struct Pair {
        Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
        ~Pair() {
            close(ends[0]);
            close(ends[1]);
        }
        Pair(const Pair&) = delete;
        Pair& operator=(const Pair&) = delete;

        int watched() const { return ends[0]; }
        void makeReady() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }

        int ends[2] = {-1, -1};
    };

    bool isReady() const {
        pollfd source{watch.descriptor(), POLLIN, 0};
        return poll(&source, 1, 0) == 1;
    }
    bool hasTaken(const Pair& pair) const {
        return watch.takeReady().test(static_cast<std::size_t>(pair.watched()));
    }

    PortWatch watch;
    Pair one;
    Pair two;
};

TEST_F(PortWatchTest, WithoutSocketsHasNoDescriptor) {
    EXPECT_EQ(watch.descriptor(), -1);
    watch.watch({}, 1);
    EXPECT_EQ(watch.descriptor(), -1);
    EXPECT_TRUE(watch.all().none());
}

TEST_F(PortWatchTest, TellsWhichAreReady) {
    watch.watch({one.watched(), two.watched()}, 1);
    EXPECT_FALSE(isReady());
    two.makeReady();
    EXPECT_TRUE(isReady());
    EXPECT_FALSE(hasTaken(one));
    EXPECT_TRUE(hasTaken(two));
    EXPECT_TRUE(hasTaken(two)) << "as long as it is not read";
    EXPECT_EQ(watch.all().count(), 2U);
}

TEST_F(PortWatchTest, WatchesThoseThatItIsGivenLast) {
    watch.watch({one.watched(), two.watched()}, 1);
    one.makeReady();
    watch.watch({two.watched()}, 1);
    EXPECT_FALSE(isReady());
    EXPECT_TRUE(watch.takeReady().none());
    watch.watch({one.watched()}, 1);
    EXPECT_TRUE(isReady());
}

TEST_F(PortWatchTest, SocketThatHasTheNumberOfAnotherIsWatchedAfterAChange) {
    Pair next;
    watch.watch({one.watched()}, 1);
    ASSERT_EQ(dup2(next.watched(), one.watched()), one.watched());
    watch.watch({one.watched()}, 2);
    next.makeReady();
    EXPECT_TRUE(hasTaken(one));
}

TEST_F(PortWatchTest, WhatIsNoSocketAnyMoreIsLeftToTheCaller) {
    const int gone = fcntl(one.watched(), F_DUPFD_CLOEXEC, 200);
    close(gone);
    watch.watch({gone, two.watched()}, 1);
    EXPECT_EQ(watch.others(), std::vector<int>{gone});
    two.makeReady();
    EXPECT_TRUE(hasTaken(two));
    ASSERT_EQ(dup2(one.watched(), gone), gone);
    watch.watch({gone, two.watched()}, 1);
    EXPECT_TRUE(watch.others().empty()) << "tried again";
    close(gone);
}

}  // namespace
