// Reading a rules file from the disk.

#include "platform/rules/rules_file.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/scratch_root.hpp"

namespace {

class RulesFileTest : public ::testing::Test {
  protected:
    std::string write(const std::string& text) const {
        const std::string path = m_root.path("/rules");
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    ScratchRoot m_root;
};

}  // namespace

TEST_F(RulesFileTest, LinesOfAFileAreRead) {
    const RulesFile file = readRulesFile(write("# a\nallow user ann *\n"));
    EXPECT_TRUE(file.isSound()) << file.problem;
    ASSERT_EQ(file.rules.rules().size(), 1U);
    EXPECT_EQ(file.rules.rules()[0].line, 2);
}

TEST_F(RulesFileTest, EmptyFileIsSoundAndGrantsNothing) {
    const RulesFile file = readRulesFile(write(""));
    EXPECT_TRUE(file.isSound());
    EXPECT_TRUE(file.rules.rules().empty());
}

TEST_F(RulesFileTest, FileWithABadLineIsNotSound) {
    const RulesFile file = readRulesFile(write("allow user ann *\nallow\n"));
    EXPECT_FALSE(file.isSound());
    EXPECT_EQ(file.problem, "");
    EXPECT_EQ(file.rules.errors().size(), 1U);
}

TEST_F(RulesFileTest, MissingFileSaysSo) {
    const RulesFile file = readRulesFile(m_root.path("/none"));
    EXPECT_FALSE(file.isSound());
    EXPECT_EQ(file.problem, "No such file or directory");
    EXPECT_TRUE(file.rules.rules().empty());
}

TEST_F(RulesFileTest, FolderFifoAndDeviceAreNoFilesAndNobodyWaitsForThem) {
    EXPECT_EQ(readRulesFile(m_root.path()).problem, "it is no regular file");
    const std::string fifo = m_root.path("/fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(readRulesFile(fifo).problem, "it is no regular file");
    EXPECT_EQ(readRulesFile("/dev/zero").problem, "it is no regular file");
}

TEST_F(RulesFileTest, FileOf64KiBIsReadAndALargerOneRefused) {
    const std::string line = "allow user ann *\n";
    std::string text(65536 - line.size(), '\n');
    const RulesFile largest = readRulesFile(write(text + line));
    EXPECT_TRUE(largest.isSound()) << largest.problem;
    EXPECT_EQ(largest.rules.rules().size(), 1U);
    const RulesFile larger = readRulesFile(write(text + line + "\n"));
    EXPECT_EQ(larger.problem, "it has more than 65536 bytes");
    EXPECT_TRUE(larger.rules.rules().empty());
}

TEST_F(RulesFileTest, ConfiguredPathIsAbsoluteAndBelowTheRoot) {
    setenv("QUIL_ROOT", m_root.path().c_str(), 1);
    write("allow user ann *\n");
    EXPECT_TRUE(readConfiguredRules("/rules").isSound());
    EXPECT_EQ(readConfiguredRules("/none").problem, "No such file or directory");
    for (const char* path : {"rules", "./rules", "../rules", ""}) {
        EXPECT_EQ(readConfiguredRules(path).problem, "it is no absolute path") << path;
    }
}
