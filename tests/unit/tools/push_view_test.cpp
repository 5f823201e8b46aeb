// How a push looks.

#include "tools/quilctl/push_view.hpp"

#include <gtest/gtest.h>

#include "tools/quilctl/push_length.hpp"

namespace {

// The description without the time in front.
std::string shown(const quilclient::Push& push) {
    std::FILE* file = std::tmpfile();
    const std::string text = describePush(push, Style(file));
    std::fclose(file);
    return text.substr(10);
}

quilclient::Push makePush(const std::string& data) {
    quilclient::Push push;
    push.id = " m1";
    push.data = data;
    push.headers = {{"A", " 1"}};
    return push;
}

}  // namespace

TEST(PushView, ShowsTextAsItsLines) {
    EXPECT_EQ(shown(makePush("one\r\ntwo\n")),
              "push ' m1', 9 bytes, nobody waits\n"
              "          A: 1\n"
              "          | one\n"
              "          | two\n");
}

TEST(PushView, TellsWhoWaitsAndWhatCameBefore) {
    quilclient::Push push = makePush("x");
    push.senderWaits = true;
    push.isDuplicate = true;
    push.headers.clear();
    EXPECT_EQ(shown(push),
              "push ' m1', 1 byte, sender waits\n"
              "          a push with this id came before\n"
              "          | x\n");
}

TEST(PushView, MarksAPushThatCameShort) {
    quilclient::Push push = makePush("hi");
    push.headers = {{"Content-Length", " 5"}};
    EXPECT_EQ(shown(push).substr(0, 24), "push ' m1', 2 of 5 bytes");
    EXPECT_EQ(pushAsJson(push)["announced"], 5);
    EXPECT_EQ(pushAsJson(push)["short"], true);
    push.data = "hello";
    EXPECT_EQ(shown(push).substr(0, 19), "push ' m1', 5 bytes");
    EXPECT_EQ(pushAsJson(push)["short"], false);
}

TEST(PushLength, IsWhatTheLastContentLengthBeginsWith) {
    quilclient::Push push = makePush("");
    EXPECT_FALSE(announcedBytes(push));
    push.headers = {{"content-length", " 5"}};
    EXPECT_FALSE(announcedBytes(push)) << "another spelling is another header";
    push.headers = {{"Content-Length", " 5"}, {"Content-Length", "\t12 or so"}};
    EXPECT_EQ(announcedBytes(push), 12U);
    EXPECT_TRUE(isShort(push));
    for (const char* none : {"", " ", "x5", "-5", "0"}) {
        push.headers = {{"Content-Length", none}};
        EXPECT_EQ(announcedBytes(push), 0U) << none;
        EXPECT_FALSE(isShort(push)) << none;
    }
    push.headers = {{"Content-Length", "99999999999999999999999"}};
    EXPECT_TRUE(isShort(push));
}

TEST(PushView, ShowsOtherBytesAsADumpWithin80Columns) {
    const std::string text = shown(makePush(std::string("\0\x1b[31mABCDEFGHIJ", 16) + "Z"));
    EXPECT_EQ(text,
              "push ' m1', 17 bytes, nobody waits\n"
              "          A: 1\n"
              "          0000  00 1b 5b 33 31 6d 41 42 43 44 45 46 47 48 49 4a  ..[31mABCDEFGHIJ\n"
              "          0010  5a                                               Z\n");
}

TEST(PushView, ShowsTheBeginningOfMuchData) {
    EXPECT_NE(shown(makePush(std::string(500, '\0'))).find("... 372 more bytes"),
              std::string::npos);
    std::string lines;
    for (int i = 0; i < 30; ++i) {
        lines += "line\n";
    }
    EXPECT_NE(shown(makePush(lines)).find("... 50 more bytes"), std::string::npos);
}

TEST(PushView, LetsNoControlByteThrough) {
    quilclient::Push push = makePush("x");
    push.id = "\x1b[2J";
    push.headers = {{"\x1b", "\n\r"}};
    const std::string text = shown(push);
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    EXPECT_NE(text.find("\\x1b:\\n\\r\n"), std::string::npos) << text;
}

TEST(PushJson, HasEverythingInOrder) {
    EXPECT_EQ(pushAsJson(makePush("hi")).dump(),
              R"({"event":"push","id":" m1","senderWaits":false,"duplicate":false,)"
              R"("headers":[["A"," 1"]],"bytes":2,"short":false,"data":"aGk=","text":"hi"})");
    EXPECT_FALSE(pushAsJson(makePush("\xff")).contains("text"));
}
