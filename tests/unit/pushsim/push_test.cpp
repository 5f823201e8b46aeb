// The bytes of a push, what is said about those a device will not like, and how bytes are shown.

#include "pushsim/push.hpp"

#include <gtest/gtest.h>

#include <string>

#include "pushsim/readable.hpp"
#include "tests/unit/pushsim/support.hpp"

TEST(Push, ExampleIsTheGoldenFile) {
    EXPECT_EQ(examplePush(), golden("push_example.bin"));
    EXPECT_EQ(examplePush().size(), 65U);
}

TEST(Push, HeadersStandInFrontOfTheDataInOrder) {
    PushHead head;
    head.id = "m 7";
    head.headers = {"A: 1", "B:2"};
    EXPECT_EQ(buildPush(head, std::string("x\0\r\ny", 5)),
              std::string("POST /push HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m 7\r\n"
                          "A: 1\r\nB:2\r\n\r\nx\0\r\ny",
                          80));
}

TEST(Push, BareHeadIsOnlyTheFirstLine) {
    PushHead head;
    head.contentLength = false;
    EXPECT_EQ(buildPush(head, "x"), "POST /push HTTP/1.1\r\n\r\nx");
}

TEST(PushWarnings, GoodPushHasNone) {
    EXPECT_TRUE(pushWarnings(examplePush()).empty());
}

TEST(PushWarnings, LongestDataHaveNoneAndOneByteMoreHas) {
    EXPECT_TRUE(pushWarnings(buildPush({}, std::string(11517, 'x'))).empty());
    EXPECT_EQ(pushWarnings(buildPush({}, std::string(11518, 'x'))).size(), 1U);
}

TEST(PushWarnings, LongestPushHasNoneAndOneByteMoreHas) {
    const std::string data = "\r\n\r\nx";
    const std::string longest = std::string(15360 - data.size(), 'h') + data;
    EXPECT_TRUE(pushWarnings(longest).empty());
    EXPECT_EQ(pushWarnings("h" + longest).size(), 1U);
}

TEST(PushWarnings, MissingEmptyLineAndZeroByteInTheHeadAreNamed) {
    EXPECT_EQ(pushWarnings("POST /x HTTP/1.1\r\nA: 1\r\n").size(), 1U);
    EXPECT_EQ(pushWarnings(std::string("A: \0\r\n\r\nx", 9)).size(), 1U);
    EXPECT_TRUE(pushWarnings(std::string("A: 1\r\n\r\n\0", 9)).empty());
}

TEST(Readable, ShowsEveryByteAsText) {
    EXPECT_EQ(readable(std::string("a\r\n\t\\\0\xff~", 8)), "a\\r\\n\\t\\\\\\x00\\xff~");
}

TEST(Readable, LinesEndBehindLineFeeds) {
    EXPECT_EQ(readableLines("a\r\nb", "> "), "> a\\r\\n\n> b\n");
    EXPECT_EQ(readableLines("", "> "), "");
}

TEST(Readable, LongTextIsCutAndSaysSo) {
    EXPECT_EQ(readableStart("abc", 3), "abc");
    EXPECT_EQ(readableStart("abcd", 3), "abc... (4 bytes)");
}
