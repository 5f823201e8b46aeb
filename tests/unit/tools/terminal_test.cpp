// Text for people.

#include "tools/common/terminal.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

TEST(VisibleText, HoldsNoControlByte) {
    EXPECT_EQ(visible("a\x1b[31m\n\\\x7f"), "a\\x1b[31m\\n\\\\\\x7f");
    EXPECT_EQ(visible(std::string_view("\0", 1)), "\\x00");
}

TEST(VisibleText, KeepsUtf8AndEscapesWhatIsNone) {
    EXPECT_EQ(visible("Z\xc3\xbcrich \xe2\x82\xac \xf0\x9f\x98\x80"),
              "Z\xc3\xbcrich \xe2\x82\xac \xf0\x9f\x98\x80");
    EXPECT_EQ(visible("\xff\xc3"), "\\xff\\xc3");
    EXPECT_EQ(visible("\xc2\x9b"), "\\xc2\\x9b");  // a control that terminals obey
}

TEST(ReadableText, HasNoControlsButLayout) {
    EXPECT_TRUE(isReadable("a\tb\r\nc"));
    EXPECT_TRUE(isReadable(""));
    EXPECT_FALSE(isReadable("a\x1b"));
    EXPECT_FALSE(isReadable("a\xff"));
    EXPECT_FALSE(isReadable(std::string_view("\0", 1)));
}

TEST(Wrapping, BreaksAtBlanks) {
    EXPECT_EQ(wrapped("one two three", 0, 2, 7), "one two\n  three");
    EXPECT_EQ(wrapped("one two", 4, 2, 7), "one\n  two");
    EXPECT_EQ(wrapped("muchtoolongword x", 0, 1, 5), "muchtoolongword\n x");
    EXPECT_EQ(wrapped("", 3, 3, 7), "");
}

TEST(Base64Text, IsPadded) {
    EXPECT_EQ(encodeBase64(""), "");
    EXPECT_EQ(encodeBase64("h"), "aA==");
    EXPECT_EQ(encodeBase64("he"), "aGU=");
    EXPECT_EQ(encodeBase64("hel"), "aGVs");
    EXPECT_EQ(encodeBase64("\xfb\xff\xbf"), "+/+/");
}

TEST(Colours, AreOnlyForTerminals) {
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(Style(file).bad("x"), "x");
    std::fclose(file);
}

namespace {

// What a style makes of "x" on a terminal, under these variables.
std::string onTerminal(const char* noColor, const char* term) {
    setenv("NO_COLOR", noColor, 1);
    setenv("TERM", term, 1);
    const int control = posix_openpt(O_RDWR | O_NOCTTY);
    grantpt(control);
    unlockpt(control);
    std::FILE* terminal = std::fopen(ptsname(control), "r+");
    EXPECT_NE(terminal, nullptr);
    const std::string text = Style(terminal).bad("x");
    std::fclose(terminal);
    close(control);
    return text;
}

}  // namespace

TEST(Colours, AreOffWithNoColorAndOnDumbTerminals) {
    EXPECT_EQ(onTerminal("", "xterm"), "\x1b[31mx\x1b[0m");
    EXPECT_EQ(onTerminal("1", "xterm"), "x");
    EXPECT_EQ(onTerminal("", "dumb"), "x");
}
