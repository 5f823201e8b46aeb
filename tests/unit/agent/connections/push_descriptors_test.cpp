// The share of pushes in the descriptors, whatever the limit is.

#include "agent/connections/push_descriptors.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <vector>

#include "tests/support/descriptors.hpp"
#include "tests/support/file_limit.hpp"

namespace {

std::vector<std::uint64_t> limits() {
    std::vector<std::uint64_t> all;
    for (std::uint64_t limit = 32; limit < 5000; ++limit) {
        all.push_back(limit);
    }
    for (const std::uint64_t limit : {16384UL, 65536UL, 1UL << 20, 1UL << 30}) {
        all.push_back(limit);
    }
    all.push_back(RLIM_INFINITY);
    return all;
}

}  // namespace

TEST(PushDescriptors, AllThatTheBoundsAllowFitsAndLeavesRoomForPushesOnTheirWay) {
    for (const std::uint64_t limit : limits()) {
        const PushDescriptors theirs = pushDescriptorsFor(limit);
        const std::size_t numbers = static_cast<std::size_t>(theirs.end - theirs.first);
        EXPECT_GE(theirs.mostSetAside, 1U);
        EXPECT_GE(theirs.mostParked, 1U);
        EXPECT_GT(numbers, theirs.mostKeptOfOneSession + theirs.mostSetAside + theirs.mostParked)
            << "limit " << limit;
    }
}

TEST(PushDescriptors, OneSessionKeepsHalfOfAllAtMost) {
    for (const std::uint64_t limit : limits()) {
        EXPECT_EQ(pushDescriptorsFor(limit).mostKeptOfOneSession,
                  std::min<std::uint64_t>(limit, INT_MAX) / 2);
    }
}

TEST(PushDescriptors, OthersHaveAQuarterOfFewAndTheWatchedAndSomeMoreOfMany) {
    EXPECT_EQ(pushDescriptorsFor(100).first, 25);
    EXPECT_EQ(pushDescriptorsFor(100).end, 100);
    EXPECT_EQ(pushDescriptorsFor(1023).first, 255);
    EXPECT_EQ(pushDescriptorsFor(1024).first, 256);
    EXPECT_EQ(pushDescriptorsFor(1024).end, 1024 - 32);
    EXPECT_EQ(pushDescriptorsFor(16384).first, 256);
    EXPECT_EQ(pushDescriptorsFor(16384).end, 16384 - 128);
}

TEST(PushDescriptors, OfTheShippedLimitThereAreTheBoundsThatAreTold) {
    const PushDescriptors theirs = pushDescriptorsFor(16384);
    EXPECT_EQ(theirs.mostKeptOfOneSession, 8192U);
    EXPECT_EQ(theirs.mostSetAside, 1024U);
    EXPECT_EQ(theirs.mostParked, 1024U);
}

TEST(PushDescriptors, AskingForRoomLeavesNothingOpen) {
    const int before = countDescriptors();
    EXPECT_TRUE(isDescriptorLeftForPush());
    EXPECT_EQ(countDescriptors(), before);
}

TEST(PushDescriptors, MovedConnectionIsClosedOnExec) {
    const int moved = moveToPushDescriptor(open("/dev/null", O_RDONLY));
    EXPECT_GE(moved, 256);
    EXPECT_EQ(fcntl(moved, F_GETFD), FD_CLOEXEC);
    close(moved);
}

TEST(PushDescriptors, ConnectionThatCannotBeMovedStaysWhatItWas) {
    const FileLimit limit(64);
    std::vector<int> held;
    for (int number = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 16); number != -1;
         number = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 16)) {
        held.push_back(number);
    }
    EXPECT_FALSE(isDescriptorLeftForPush());
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(file, -1);
    EXPECT_EQ(moveToPushDescriptor(file), file);
    EXPECT_TRUE(isOpen(file));
    close(file);
    for (const int number : held) {
        close(number);
    }
}
