// Work in a child process: its text comes back, and nobody waits for one that hangs.

#include "tools/common/abandonable.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

using std::chrono::milliseconds;

TEST(Abandonable, GivesTheText) {
    const std::string text(300000, 'x');
    EXPECT_EQ(runAbandonable(milliseconds(20000), [&] { return text; }), text);
    EXPECT_EQ(runAbandonable(milliseconds(20000), [] { return std::string(); }), "");
    EXPECT_EQ(runAbandonable(milliseconds(20000), [] { return std::string("\0\n", 2); }),
              std::string("\0\n", 2));
}

TEST(Abandonable, GivesNothingWhenItTakesTooLong) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(runAbandonable(milliseconds(50), [] { return pause(), std::string("x"); }),
              std::nullopt);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(Abandonable, GivesNothingOfAChildThatDied) {
    EXPECT_EQ(runAbandonable(milliseconds(20000), [] { return raise(SIGKILL), std::string("x"); }),
              std::nullopt);
    EXPECT_EQ(runAbandonable(milliseconds(20000), []() -> std::string { throw 1; }), std::nullopt);
}

// Whoever reads our output to its end shall not wait for a child that hangs.
TEST(Abandonable, ChildHasNoneOfOurDescriptors) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string seen = runAbandonable(milliseconds(20000), [&] {
                                 std::string open;
                                 for (int i = 0; i < 100; ++i) {
                                     open += fcntl(i, F_GETFD) < 0 ? "" : std::to_string(i) + " ";
                                 }
                                 return open;
                             }).value_or("nothing came");
    EXPECT_EQ(seen, "0 1 2 3 ");
    close(ends[0]);
    close(ends[1]);
}
