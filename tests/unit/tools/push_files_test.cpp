// Pushes as files: names that can do no harm, and nothing overwritten.

#include "tools/quilctl/push_files.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return file ? content.str() : "no such file";
}

class SavedPush : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string folder = std::filesystem::temp_directory_path() / "push_files_XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        m_folder = folder;
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    std::string save(const std::string& id, const std::string& data) {
        quilclient::Push push;
        push.id = id;
        push.data = data;
        push.headers = {{"A", " 1"}, {"A", " 2"}};
        return savePush(m_folder.string(), push, &m_error);
    }

    std::filesystem::path m_folder;
    std::string m_error;
};

}  // namespace

TEST(SafeFileName, CannotLeaveItsFolder) {
    EXPECT_EQ(safeFileName("../../etc/passwd"), "%2E.%2F..%2Fetc%2Fpasswd");
    EXPECT_EQ(safeFileName(".hidden"), "%2Ehidden");
    EXPECT_EQ(safeFileName(" m1"), "%20m1");
    EXPECT_EQ(safeFileName("a-b_c.9"), "a-b_c.9");
    EXPECT_EQ(safeFileName(""), "%");
    EXPECT_EQ(safeFileName(std::string("\0\xff", 2)), "%00%FF");
    EXPECT_EQ(safeFileName(std::string(5000, 'x')).size(), 120U);
}

TEST_F(SavedPush, HasDataAndHeaders) {
    EXPECT_EQ(save("m1", std::string("\0\1\n", 3)), "m1");
    EXPECT_EQ(contentOf(m_folder / "m1.data"), std::string("\0\1\n", 3));
    EXPECT_EQ(contentOf(m_folder / "m1.headers"), "A: 1\nA: 2\n");
}

TEST_F(SavedPush, NeverOverwritesAnother) {
    EXPECT_EQ(save("m1", "one"), "m1");
    EXPECT_EQ(save("m1", "two"), "m1-2");
    EXPECT_EQ(save("m1", "three"), "m1-3");
    EXPECT_EQ(contentOf(m_folder / "m1.data"), "one");
    EXPECT_EQ(contentOf(m_folder / "m1-2.data"), "two");
}

TEST_F(SavedPush, LeavesNoDataWhereTheHeadersFindNoPlace) {
    std::ofstream(m_folder / "m1.headers") << "taken";
    EXPECT_EQ(save("m1", "one"), "m1-2");
    EXPECT_FALSE(std::filesystem::exists(m_folder / "m1.data"));
}

TEST_F(SavedPush, FailureHasItsReason) {
    std::filesystem::remove_all(m_folder);
    EXPECT_EQ(save("m1", "one"), "");
    EXPECT_EQ(m_error, "cannot write to " + m_folder.string() + ": No such file or directory");
}
