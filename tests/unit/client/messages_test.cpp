// The text of requests and answers, and how a stream is cut into messages.

#include "client/messages.hpp"

#include <gtest/gtest.h>

#include "client/base64.hpp"
#include "client/recent_ids.hpp"
#include "platform/pps/decoder.hpp"

using namespace quilclient;

namespace {

std::string encoded(Verb verb, const std::string& argument) {
    std::string text;
    const Result result = encodeRequest({verb, "com.app", argument}, "7", &text);
    return result.ok() ? text : "refused: " + result.words;
}

std::vector<std::string> taken(MessageSplitter& splitter, bool isDrained) {
    std::vector<std::string> messages;
    if (!splitter.take(isDrained, &messages)) {
        messages.push_back("END");
    }
    return messages;
}

std::vector<std::string> split(const std::string& text, bool isDrained) {
    MessageSplitter splitter;
    splitter.add(text.data(), text.size());
    return taken(splitter, isDrained);
}

using Texts = std::vector<std::string>;

}  // namespace

TEST(Requests, CarryNameIdAndApplication) {
    EXPECT_EQ(encoded(Verb::CreateSession, ""),
              "msg::createSession\nid::7\ndat:json:{\"providerApplicationId\":\"com.app\"}\n");
    EXPECT_EQ(encoded(Verb::DestroyChannel, ""),
              "msg::destroyChannel\nid::7\ndat:json:{\"providerApplicationId\":\"com.app\"}\n");
    EXPECT_EQ(
        encoded(Verb::UnregisterFromLaunch, ""),
        "msg::unregisterFromLaunch\nid::7\ndat:json:{\"providerApplicationId\":\"com.app\"}\n");
}

TEST(Answers, AboutAChannelTellHowItStands) {
    const Incoming answer = decodeMessage(
        "@ipc\nmsg::onQueryChannelComplete\nid::1\ndat:json:{\"registered\":1,\"listening\":1,"
        "\"port\":24010,\"token\":\"2a3b\",\"ppgUrl\":\"http://h\"}\n");
    EXPECT_TRUE(isReplyTo(Verb::QueryChannel, answer));
    EXPECT_TRUE(outcomeOf(Verb::QueryChannel, answer).ok());
    EXPECT_EQ(answer.channel.port, 24010);
    EXPECT_EQ(answer.channel.token, "2a3b");
    EXPECT_TRUE(answer.channel.standsFor("http://h"));
    EXPECT_FALSE(answer.channel.standsFor("http://other"));
    const Incoming none = decodeMessage("@ipc\nmsg::onQueryChannelComplete\nid::1\nerr:n:10100\n");
    EXPECT_EQ(outcomeOf(Verb::QueryChannel, none).code, 10100);
    EXPECT_FALSE(none.channel.isRegistered || none.channel.isListening);
}

TEST(Requests, CarryTheirArgument) {
    EXPECT_EQ(encoded(Verb::CreateChannel, "http://h:1"),
              "msg::createChannel\nid::7\n"
              "dat:json:{\"providerApplicationId\":\"com.app\",\"ppgUrl\":\"http://h:1\"}\n");
    EXPECT_EQ(encoded(Verb::RegisterToLaunch, "app://x"),
              "msg::registerToLaunch\nid::7\n"
              "dat:json:{\"providerApplicationId\":\"com.app\",\"launchString\":\"app://x\"}\n");
}

TEST(Requests, AboutAPushUseItsIdAsItStands) {
    EXPECT_EQ(encoded(Verb::AcceptPush, " m1"),
              "msg::acceptPush\nid:: m1\ndat:json:{\"providerApplicationId\":\"com.app\"}\n");
    EXPECT_EQ(encoded(Verb::RejectPush, "a\nmsg::evil"),
              "msg::rejectPush\nid:c:a\\nmsg::evil\n"
              "dat:json:{\"providerApplicationId\":\"com.app\"}\n");
}

TEST(Requests, ThatTheAgentCouldNotTakeAreRefused) {
    EXPECT_EQ(encoded(Verb::CreateChannel, ""), "refused: ppgUrl is empty");
    EXPECT_EQ(encoded(Verb::RegisterToLaunch, ""), "refused: launchString is empty");
    EXPECT_EQ(encoded(Verb::AcceptPush, ""), "refused: the push id is empty");
    EXPECT_EQ(encoded(Verb::CreateChannel, "http://\xff"), "refused: ppgUrl is not valid UTF-8");
    std::string text;
    EXPECT_EQ(encodeRequest({Verb::CreateSession, "", ""}, "1", &text).words,
              "the application id is empty");
    EXPECT_EQ(encodeRequest({Verb::CreateSession, "\xc3", ""}, "1", &text).words,
              "the application id is not valid UTF-8");
    EXPECT_EQ(encodeRequest({Verb::RegisterToLaunch, "a", std::string(9000, 'x')}, "1", &text).code,
              kBadArgument);
}

TEST(Requests, MayHoldTheReplacementCharacterItself) {
    EXPECT_NE(encoded(Verb::RegisterToLaunch, "\xEF\xBF\xBD").find("registerToLaunch"),
              std::string::npos);
}

TEST(Answers, AboutLaunchStringsAreKnownWithoutMsg) {
    const Incoming reply = decodeMessage("@ipc\nid::3\nerr:n:10101\n");
    EXPECT_EQ(reply.kind, Incoming::Reply);
    EXPECT_EQ(reply.id, "3");
    EXPECT_EQ(outcomeOf(Verb::RegisterToLaunch, reply).code, 10101);
    EXPECT_EQ(outcomeOf(Verb::RegisterToLaunch, reply).words, "the launch string is empty");
}

TEST(Answers, ChannelWithoutTokenIsAFailure) {
    const Incoming empty =
        decodeMessage("@ipc\nmsg::onCreateChannelComplete\nid::1\ndat:json:{\"token\":\"\"}\n");
    EXPECT_EQ(outcomeOf(Verb::CreateChannel, empty).code, kEmptyToken);
    const Incoming none = decodeMessage("@ipc\nmsg::onCreateChannelComplete\nid::1\n");
    EXPECT_EQ(outcomeOf(Verb::CreateChannel, none).code, kEmptyToken);
    const Incoming good =
        decodeMessage("@ipc\nmsg::onCreateChannelComplete\nid::1\ndat:json:{\"token\":\"2a\"}\n");
    EXPECT_TRUE(outcomeOf(Verb::CreateChannel, good).ok());
    EXPECT_EQ(good.token, "2a");
}

TEST(Pushes, KeepIdHeadersAndBytesAsSent) {
    const Incoming incoming = decodeMessage(
        "@ipc\nmsg::pushNotification\nid:: m1\ndat:json:{\"appLevelAck\":1,\"data\":\"AAH/\","
        "\"httpHeaders\":{\"b\":\" 1\",\"a\":\" 2\",\"b\":\" 3\"}}\n");
    ASSERT_EQ(incoming.kind, Incoming::PushArrived);
    EXPECT_EQ(incoming.damage, "");
    EXPECT_EQ(incoming.push.id, " m1");
    EXPECT_TRUE(incoming.push.senderWaits);
    EXPECT_EQ(incoming.push.data, std::string("\0\1\xff", 3));
    std::string headers;
    for (const Header& header : incoming.push.headers) {
        headers += header.name + "=" + header.value + ";";
    }
    EXPECT_EQ(headers, "b= 1;a= 2;b= 3;");
}

TEST(Pushes, WithoutReadableDataAreDamaged) {
    EXPECT_EQ(decodeMessage("@ipc\nmsg::pushNotification\nid::x\n").damage,
              "push 'x' came without readable data");
    EXPECT_EQ(decodeMessage("@ipc\nmsg::pushNotification\nid::x\n"
                            "dat:json:{\"appLevelAck\":0,\"data\":\"?\"}\n")
                  .damage,
              "push 'x' came without readable data");
}

TEST(Stream, IsCutAtEveryObjectLine) {
    EXPECT_EQ(split("@ipc\na::1\n@ipc\nb::2\n", true), (Texts{"@ipc\na::1\n", "@ipc\nb::2\n"}));
}

TEST(Stream, LastMessageWaitsUntilAllIsRead) {
    MessageSplitter splitter;
    const std::string first = "@ipc\na::1\n@ipc\nb:";
    const std::string second = ":2\n";
    splitter.add(first.data(), first.size());
    EXPECT_EQ(taken(splitter, true), (Texts{"@ipc\na::1\n"}));
    splitter.add(second.data(), second.size());
    EXPECT_EQ(taken(splitter, false), (Texts{}));
    EXPECT_EQ(taken(splitter, true), (Texts{"@ipc\nb::2\n"}));
    EXPECT_EQ(splitter.heldBytes(), 0U);
}

TEST(Stream, EndsWithTheServer) {
    EXPECT_EQ(split("@ipc\na::1\n-@ipc\n", false), (Texts{"@ipc\na::1\n", "END"}));
    EXPECT_EQ(split("-@ipc\n@ipc\nlate::1\n", true), (Texts{"END"}));
}

TEST(Stream, RemovedAttributeIsNoEnd) {
    EXPECT_EQ(split("@ipc\na::1\n-b\n", true), (Texts{"@ipc\na::1\n-b\n"}));
}

TEST(Base64, GivesTheBytesBack) {
    EXPECT_EQ(decodeBase64(""), "");
    EXPECT_EQ(decodeBase64("aA=="), "h");
    EXPECT_EQ(decodeBase64("aGU="), "he");
    EXPECT_EQ(decodeBase64("aGVs"), "hel");
    EXPECT_EQ(decodeBase64("+/+/"), "\xfb\xff\xbf");
}

TEST(Base64, RefusesWhatIsNone) {
    for (const char* text : {"a", "aGV", "aG=s", "a===", "aGVs\n", "aB==", "aGV=", "===="}) {
        EXPECT_FALSE(decodeBase64(text).has_value()) << text;
    }
}

TEST(RecentIds, KnowsTheLastThousandAndForgetsOlderOnes) {
    RecentIds ids;
    EXPECT_FALSE(ids.remember("first"));
    EXPECT_TRUE(ids.remember("first"));
    for (std::size_t i = 0; i < RecentIds::kMax; ++i) {
        EXPECT_FALSE(ids.remember(std::to_string(i)));
    }
    EXPECT_TRUE(ids.remember("5"));
    EXPECT_FALSE(ids.remember("first"));
}
