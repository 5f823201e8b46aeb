// The line parser: what each kind of line gives, and where the cursor stands at the end.

#include "platform/pps/ppsparse.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// One line per result, so that a whole walk compares as one string.
std::string walk(const std::string& text) {
    std::string seen;
    const char* cursor = text.data();
    const char* end = text.data() + text.size();
    for (;;) {
        pps_line_t line;
        const pps_result_t result = ppsparse(&cursor, end, &line);
        if (result == PPS_END) {
            seen += "end, left [" + std::string(cursor, end) + "]";
            return seen + (line.incomplete ? " incomplete" : "");
        }
        seen += std::to_string(result) + " " + std::string(line.name) + "|" +
                std::string(line.encoding) + "|" + std::string(line.value) + "\n";
    }
}

}  // namespace

TEST(PpsParse, EmptyBufferIsAtItsEnd) {
    EXPECT_EQ(walk(""), "end, left []");
}

TEST(PpsParse, ObjectLineGivesTheNameWithItsSign) {
    EXPECT_EQ(walk("@ipc.17\n"), "1 @ipc.17||\nend, left []");
}

TEST(PpsParse, CreatedAndDeletedObjectsAreToldApart) {
    EXPECT_EQ(walk("+@a\n-@b\n"), "2 @a||\n4 @b||\nend, left []");
}

TEST(PpsParse, PlainAttributeIsResult3AndCodedAttributeIsResult5) {
    EXPECT_EQ(walk("PIN::0x2a\nport:n:17\n"), "3 PIN||0x2a\n5 port|n|17\nend, left []");
}

TEST(PpsParse, ValueKeepsItsColonsAndBlanks) {
    EXPECT_EQ(walk("time::12:30: x \n"), "3 time||12:30: x \nend, left []");
}

TEST(PpsParse, EmptyValueIsAnAttribute) {
    EXPECT_EQ(walk("a::\n"), "3 a||\nend, left []");
}

TEST(PpsParse, RemovedAttributeIsResult6) {
    EXPECT_EQ(walk("-a\n"), "6 a||\nend, left []");
}

TEST(PpsParse, MalformedLinesAreSteppedOver) {
    EXPECT_EQ(walk("\nnothing\none:colon\n::x\n-\n-a:b:c\na::1\n"),
              "-1 ||\n-1 ||\n-1 ||\n-1 ||\n-1 ||\n-1 a:b:c||\n3 a||1\nend, left []");
}

TEST(PpsParse, LastLineWithoutLineFeedIsReportedAndLeft) {
    EXPECT_EQ(walk("a::1\nimsi::23"), "3 a||1\nend, left [imsi::23] incomplete");
}

TEST(PpsParse, ZeroBytesAreOrdinaryBytes) {
    const std::string text("a::x\0y\n", 7);
    EXPECT_EQ(walk(text), std::string("3 a||x\0y\nend, left []", 21));
}
