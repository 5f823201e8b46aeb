// Escaping: C escapes both ways, and JSON strings.

#include "platform/pps/text.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string json(std::string_view value) {
    std::string out;
    ppsAppendJsonString(out, value);
    return out;
}

std::string allBytes() {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    return bytes;
}

}  // namespace

TEST(PpsText, PlainTextNeedsNoEscapes) {
    EXPECT_FALSE(ppsNeedsEscapes("Grüße: 'x' \"y\""));
}

TEST(PpsText, ControlBytesAndBackslashesNeedEscapes) {
    EXPECT_TRUE(ppsNeedsEscapes("a\nb"));
    EXPECT_TRUE(ppsNeedsEscapes("a\rb"));
    EXPECT_TRUE(ppsNeedsEscapes("a\\b"));
    EXPECT_TRUE(ppsNeedsEscapes("\x7f"));
    EXPECT_TRUE(ppsNeedsEscapes(std::string_view("\0", 1)));
}

TEST(PpsText, EscapedTextIsReadable) {
    EXPECT_EQ(ppsEscapeC("a\nb\r\t\\c\x01"
                         "1"),
              "a\\nb\\r\\t\\\\c\\0011");
}

TEST(PpsText, EveryByteSurvivesEscapesAndBack) {
    EXPECT_EQ(ppsUnescapeC(ppsEscapeC(allBytes())), allBytes());
}

TEST(PpsText, EveryKindOfEscapeIsUnderstood) {
    EXPECT_EQ(ppsUnescapeC("\\a\\b\\f\\n\\r\\t\\v\\\\\\\"\\'\\q"), "\a\b\f\n\r\t\v\\\"'q");
    EXPECT_EQ(ppsUnescapeC("\\x41\\x4a1\\101\\7z"), "AJ1A\az");
    EXPECT_EQ(ppsUnescapeC("\\1011"), "A1") << "three octal digits at most";
}

TEST(PpsText, HexadecimalDigitsMayBeLowerOrUpperCase) {
    EXPECT_EQ(ppsUnescapeC("\\x6f\\x6F\\xf"), "oo\x0f");
}

TEST(PpsText, LoneBackslashAtTheEndStandsForItself) {
    EXPECT_EQ(ppsUnescapeC("a\\"), "a\\");
}

TEST(PpsText, HexEscapeWithoutDigitsIsTheLetter) {
    EXPECT_EQ(ppsUnescapeC("\\xg"), "xg");
    EXPECT_EQ(ppsUnescapeC("\\x"), "x");
}

TEST(PpsText, JsonStringEscapesQuotesBackslashesAndControlBytes) {
    EXPECT_EQ(json("a\"b\\c\n\r\t\x01\x7f"), "\"a\\\"b\\\\c\\n\\r\\t\\u0001\\u007f\"");
}

TEST(PpsText, JsonStringKeepsValidUtf8OfEveryLength) {
    EXPECT_EQ(json("é€😀\xED\x9F\xBF"), "\"é€😀\xED\x9F\xBF\"");
}

TEST(PpsText, EachByteThatIsNotUtf8BecomesTheReplacementCharacter) {
    EXPECT_EQ(json("a\xFF"
                   "b"),
              "\"a\xEF\xBF\xBD"
              "b\"");
    EXPECT_EQ(json("\xC3"), "\"\xEF\xBF\xBD\"");
    EXPECT_EQ(json("\xE2\x82"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\"");
}

TEST(PpsText, OverlongFormsSurrogatesAndTooLargeCodePointsAreNotUtf8) {
    const std::string two = "\xEF\xBF\xBD\xEF\xBF\xBD";
    const std::string three = two + "\xEF\xBF\xBD";
    EXPECT_EQ(json("\xC0\xAF"), "\"" + two + "\"");
    EXPECT_EQ(json("\xE0\x9F\xBF"), "\"" + three + "\"");
    EXPECT_EQ(json("\xED\xA0\x80"), "\"" + three + "\"");
    EXPECT_EQ(json("\xF0\x8F\xBF\xBF"), "\"" + three +
                                            "\xEF\xBF\xBD"
                                            "\"");
    EXPECT_EQ(json("\xF4\x90\x80\x80"), "\"" + three +
                                            "\xEF\xBF\xBD"
                                            "\"");
    EXPECT_EQ(json("\xF5\x80\x80\x80"), "\"" + three +
                                            "\xEF\xBF\xBD"
                                            "\"");
}
