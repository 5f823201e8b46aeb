// Ordinary objects on a live mount.

#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

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
