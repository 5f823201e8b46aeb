// A file that is followed while it is written and rotated.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/support/scratch_root.hpp"
#include "tools/quilctl/live_log.hpp"

namespace {

class Following : public ::testing::Test {
  protected:
    void append(const std::string& text) { std::ofstream(m_path, std::ios::app) << text; }

    std::string taken() {
        std::string bytes;
        EXPECT_EQ(m_log.read(bytes), LiveLog::State::Going);
        return bytes;
    }

    const ScratchRoot m_root;
    const std::string m_path = m_root.path("/log");
    FollowedFile m_log{m_path};
};

}  // namespace

TEST_F(Following, BeginsAtTheEnd) {
    append("old\n");
    ASSERT_EQ(m_log.open(false), 0);
    EXPECT_EQ(taken(), "");
    append("new\n");
    EXPECT_EQ(taken(), "new\n");
    EXPECT_EQ(taken(), "");
}

TEST_F(Following, BeginsAtTheStartWhenAsked) {
    append("old\n");
    ASSERT_EQ(m_log.open(true), 0);
    EXPECT_EQ(taken(), "old\n");
}

TEST_F(Following, GoesOnWithTheFileThatTakesTheName) {
    append("1\n");
    ASSERT_EQ(m_log.open(false), 0);
    append("2\n");
    std::filesystem::rename(m_path, m_path + ".1");
    EXPECT_EQ(taken(), "2\n");
    std::ofstream(m_path + ".1", std::ios::app) << "3\n";  // the writer has not noticed yet
    EXPECT_EQ(taken(), "3\n");
    std::ofstream(m_path + ".1", std::ios::app) << "4\n";
    append("5\n");
    EXPECT_EQ(taken(), "4\n5\n");
    append("6\n");
    EXPECT_EQ(taken(), "6\n");
}

TEST_F(Following, BeginsAnewInAFileThatWasCutShort) {
    append("1 and more\n");
    ASSERT_EQ(m_log.open(false), 0);
    std::filesystem::resize_file(m_path, 0);
    append("2\n");
    EXPECT_EQ(taken(), "2\n");
}

TEST_F(Following, OfWhatIsNoFileIsAnError) {
    EXPECT_EQ(FollowedFile(m_path).open(false), ENOENT);
    EXPECT_EQ(FollowedFile(m_root.path()).open(false), EISDIR);
}
