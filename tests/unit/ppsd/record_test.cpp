// The form of a store file, and that nothing else passes for one.

#include "ppsd/store/record.hpp"

#include <gtest/gtest.h>

namespace {

const Record kRecord{{1000, 100, 0640, {1700000000, 123456789}}, "a::1\nb:json:{\"x\":1}\n"};

const std::string kBody =
    "owner 1000\ngroup 100\nmode 0640\nmodified-seconds 1700000000\n"
    "modified-nanoseconds 123456789\n\na::1\nb:json:{\"x\":1}\n";

bool decodes(const std::string& text) {
    Record record;
    std::string error;
    const bool isRight = decodeRecord(text, record, error);
    EXPECT_EQ(isRight, error.empty()) << "a reason exactly when it fails";
    return isRight;
}

}  // namespace

TEST(Record, IsTextWithAChecksumInFront) {
    EXPECT_EQ(encodeRecord(kRecord), "ppsd-record 1 d38f28d0cfa331b2\n" + kBody);
}

TEST(Record, ComesBackAsItWas) {
    Record record;
    std::string error;
    ASSERT_TRUE(decodeRecord(encodeRecord(kRecord), record, error)) << error;
    EXPECT_EQ(record.metadata, kRecord.metadata);
    EXPECT_EQ(record.lines, kRecord.lines);
}

TEST(Record, EveryShortenedFileIsDetected) {
    const std::string text = encodeRecord(kRecord);
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_FALSE(decodes(text.substr(0, length))) << length;
    }
}

TEST(Record, EveryFlippedBitIsDetected) {
    const std::string text = encodeRecord(kRecord);
    for (std::size_t i = 0; i < text.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string damaged = text;
            damaged[i] = static_cast<char>(damaged[i] ^ (1 << bit));
            EXPECT_FALSE(decodes(damaged)) << "byte " << i << " bit " << bit;
        }
    }
}

TEST(Record, FileRepairedByHandMaySayUnchecked) {
    EXPECT_TRUE(decodes("ppsd-record 1 unchecked\n" + kBody));
}

TEST(Record, UncheckedFileIsStillParsedStrictly) {
    for (const char* bad :
         {"", "owner 1\n",
          "owner x\ngroup 1\nmode 0644\nmodified-seconds 1\nmodified-nanoseconds 1\n\n",
          "owner 1\ngroup 1\nmode 0888\nmodified-seconds 1\nmodified-nanoseconds 1\n\n",
          "owner 1\ngroup 1\nmode 10644\nmodified-seconds 1\nmodified-nanoseconds 1\n\n",
          "owner 1\ngroup 1\nmode 0644\nmodified-seconds 1\nmodified-nanoseconds 1000000000\n\n",
          "owner 1\ngroup 1\nmode 0644\nmodified-seconds 1\nmodified-nanoseconds 1\na::1\n",
          "owner 1\ngroup 1\nmode 0644\nmodified-seconds 1\nmodified-nanoseconds 1\n\nnonsense\n",
          "owner 1\ngroup 1\nmode 0644\nmodified-seconds 1\nmodified-nanoseconds 1\n\n-a\n",
          "owner 1\ngroup 1\nmode 0644\nmodified-seconds 1\nmodified-nanoseconds 1\n\na::1\na::2\n",
          "owner 1\ngroup 1\nmode 0644\nmodified-seconds 1\nmodified-nanoseconds 1\n\na::1"}) {
        EXPECT_FALSE(decodes(std::string("ppsd-record 1 unchecked\n") + bad)) << bad;
    }
}
