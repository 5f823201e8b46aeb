// Trouble with the disk is told once, and once when it is over.

#include "ppsd/store/disk_trouble.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace {

class DiskTroubleTest : public ::testing::Test {
  protected:
    void write(int error, std::size_t bytes) {
        m_trouble.noteWrite(error, bytes, [this] { return m_free; });
    }

    std::string told() { return std::exchange(m_told, ""); }

    std::string m_told;
    std::size_t m_free = 0;
    DiskTrouble m_trouble{[this](const std::string& text) { m_told += text + "\n"; }};
};

std::string begun(int error) {
    return std::string("the store cannot be written to: ") + std::strerror(error) +
           "; changes fail until it can\n";
}

constexpr const char* kOver = "the store can be written to again\n";

}  // namespace

TEST_F(DiskTroubleTest, IsToldOnceForEachConditionAndOnceWhenItIsOver) {
    for (const int error : {ENOSPC, EDQUOT, EROFS, EIO}) {
        write(0, 10);
        EXPECT_EQ(told(), "");
        write(error, 10);
        EXPECT_EQ(told(), begun(error));
        write(error, 10);
        m_trouble.noteChange(error);
        EXPECT_EQ(told(), "");
        write(0, 10);
        EXPECT_EQ(told(), kOver);
        write(0, 10);
        EXPECT_EQ(told(), "");
    }
}

TEST_F(DiskTroubleTest, OfAnotherKindIsToldToo) {
    write(ENOSPC, 10);
    write(EIO, 10);
    EXPECT_EQ(told(), begun(ENOSPC) + begun(EIO));
}

TEST_F(DiskTroubleTest, IsNoneOfTheCallersErrors) {
    for (const int error : {ENOENT, ENOMEM, EACCES, ENAMETOOLONG, EMFILE}) {
        write(error, 10);
        m_trouble.noteChange(error);
    }
    EXPECT_EQ(told(), "");
}

// On a full disk small objects may still fit now and then.
TEST_F(DiskTroubleTest, IsNotOverWhenLessFits) {
    write(ENOSPC, 1000);
    told();
    write(0, 10);
    write(ENOSPC, 1000);
    EXPECT_EQ(told(), "");
    m_free = 5000;
    write(0, 10);
    EXPECT_EQ(told(), kOver);
}

TEST_F(DiskTroubleTest, OfRoomIsNotOverByARemoval) {
    m_trouble.noteChange(ENOSPC);
    told();
    m_trouble.noteChange(0);
    EXPECT_EQ(told(), "");
    write(0, 1);
    EXPECT_EQ(told(), kOver);
    m_trouble.noteChange(EROFS);
    told();
    m_trouble.noteChange(0);
    EXPECT_EQ(told(), kOver);
}

TEST(DiskTroubleWithoutMemory, IsNotTold) {
    DiskTrouble trouble([](const std::string&) { throw std::bad_alloc(); });
    EXPECT_NO_THROW(trouble.noteChange(EIO));
}
