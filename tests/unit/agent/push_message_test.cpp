// The push message: cutting a payload into headers and data, and the base64 form of the data.

#include "agent/messages/push_message.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "agent/log.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

const std::string kExample =
    "POST /x HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m1\r\n\r\nhello";

class PushMessage : public ::testing::Test {
  protected:
    void feed(const std::string& bytes) {
        m_push.setPayload(bytes.data(), static_cast<int>(bytes.size()));
    }

    // The headers as "[name=value]", in order.
    std::string headers() const {
        std::string all;
        for (const auto& header : m_push.getHttpHeaders()) {
            all += "[" + header->getName() + "=" + header->getValue() + "]";
        }
        return all;
    }

    QuilPushMessage m_push{"app", "@ipc.1"};
};

}  // namespace

TEST_F(PushMessage, StartsEmpty) {
    EXPECT_EQ(m_push.getCallbackName(), "pushNotification");
    EXPECT_EQ(m_push.getMessageType(), 5);
    EXPECT_EQ(m_push.getErrorCode(), 0);
    EXPECT_EQ(m_push.getPayloadLength(), 0);
    EXPECT_EQ(m_push.getDataLength(), -1);
    EXPECT_EQ(m_push.getContentLength(), -1);
    EXPECT_EQ(m_push.getDataPosition(), -1);
    EXPECT_EQ(m_push.getSocket(), -1);
    EXPECT_EQ(m_push.getId(), "");
    EXPECT_FALSE(m_push.hasMoreData());
}

TEST_F(PushMessage, ExampleOf65BytesGivesItsHeadersPositionsAndId) {
    ASSERT_EQ(kExample.size(), 65U);
    feed(kExample);
    EXPECT_EQ(headers(), "[Content-Length= 5][Push-Message-ID= m1]");
    EXPECT_EQ(m_push.getContentLength(), 5);
    EXPECT_EQ(m_push.getDataPosition(), 60);
    EXPECT_EQ(m_push.getDataLength(), 5);
    EXPECT_EQ(m_push.getId(), " m1");
    EXPECT_FALSE(m_push.hasMoreData());
}

TEST_F(PushMessage, BodyOf2BytesOf5WantsMoreUntilAllAreThere) {
    feed("P\x20x\r\nContent-Length: 5\r\n\r\nhe");
    EXPECT_TRUE(m_push.hasMoreData());
    feed("llo");
    EXPECT_EQ(m_push.getDataLength(), 5);
    EXPECT_FALSE(m_push.hasMoreData());
    m_push.createData();
    EXPECT_EQ(m_push.getData(), "aGVsbG8=");
}

TEST_F(PushMessage, ContentLengthInOtherLettersIsAHeaderWithoutEffect) {
    feed("POST /\r\ncontent-length: 5\r\n\r\nhe");
    EXPECT_EQ(headers(), "[content-length= 5]");
    EXPECT_EQ(m_push.getContentLength(), -1);
    EXPECT_FALSE(m_push.hasMoreData());
}

TEST_F(PushMessage, PushWithoutIdGetsTheAppIdAndANumber) {
    feed("POST /\r\n\r\nx");
    const std::string id = m_push.getId();
    ASSERT_EQ(id.substr(0, 3), "app");
    ASSERT_GT(id.size(), 3U);
    EXPECT_EQ(id.find_first_not_of("0123456789", 3), std::string::npos) << id;
}

TEST_F(PushMessage, TwoPushesWithoutIdWithinOneSecondHaveTwoIds) {
    QuilPushMessage other("app", "@ipc.1");
    feed("POST /\r\n\r\nx");
    other.setPayload("POST /\r\n\r\nx", 11);
    EXPECT_NE(m_push.getId(), other.getId());
}

TEST_F(PushMessage, EmptyIdHeaderCountsAsNone) {
    feed("POST /\r\nPush-Message-ID:\r\n\r\nx");
    EXPECT_EQ(m_push.getId().substr(0, 3), "app");
}

TEST_F(PushMessage, EmptyPayloadIsDoneAtOnce) {
    feed("");
    EXPECT_EQ(headers(), "");
    EXPECT_EQ(m_push.getDataLength(), -1);
    EXPECT_NE(m_push.getId(), "");
}

TEST_F(PushMessage, FirstLineWithAColonBecomesAHeaderWithoutItsFirstCharacter) {
    feed("XHost: a\r\n\r\n");
    EXPECT_EQ(headers(), "[Host= a]");
}

TEST_F(PushMessage, ColonAtTheStartOfTheFirstLineGivesAnEmptyName) {
    feed(":value\r\n\r\n");
    EXPECT_EQ(headers(), "[=value]");
}

TEST_F(PushMessage, LinesWithoutColonAreIgnored) {
    raiseVerbosity(1);
    feed("POST /\r\nnothing\r\nA:1\r\n\r\n");
    EXPECT_EQ(headers(), "[A=1]");
    EXPECT_TRUE(wasLogged(6, "parsePayload: Ignoring \nnothing since : not found"))
        << recordedText();
}

TEST_F(PushMessage, NothingIsStrippedFromNamesAndValues) {
    feed("PO\r\n A : b c \r\n\r\n");
    EXPECT_EQ(headers(), "[ A = b c ]");
}

TEST_F(PushMessage, EqualHeadersAreAllKeptInOrder) {
    feed("PO\r\nA:1\r\nB:2\r\nA:3\r\n\r\n");
    EXPECT_EQ(headers(), "[A=1][B=2][A=3]");
}

TEST_F(PushMessage, LastLineWithoutLineEndIsIgnored) {
    feed("POST /\r\nA:1\r\nB:2");
    EXPECT_EQ(headers(), "[A=1]");
    EXPECT_EQ(m_push.getDataLength(), -1);
}

TEST_F(PushMessage, LoneLineFeedOfTheLastLineEndIsNoEmptyLine) {
    feed("POST /\r\nA:1\r\n");
    EXPECT_EQ(headers(), "[A=1]");
    EXPECT_EQ(m_push.getDataLength(), -1);
}

TEST_F(PushMessage, PayloadWithoutAnyLineEndHasNoHeader) {
    feed("A:1");
    EXPECT_EQ(headers(), "");
    EXPECT_EQ(m_push.getDataLength(), -1);
}

TEST_F(PushMessage, HeaderBlockThatIsNotClosedIsParsedAgainWithTheNextBytes) {
    feed("POST /\r\nA:1\r\n");
    feed("\r\nxy");
    EXPECT_EQ(headers(), "[A=1][A=1]");
    EXPECT_EQ(m_push.getDataLength(), 2);
}

TEST_F(PushMessage, FirstLineOfOneCharacterEndsTheHeaderBlock) {
    feed("X\r\ndata");
    EXPECT_EQ(m_push.getDataPosition(), 3);
    EXPECT_EQ(m_push.getDataLength(), 4);
}

TEST_F(PushMessage, EmptyFirstLineIsIgnored) {
    feed("\r\nA:1\r\n\r\nx");
    EXPECT_EQ(headers(), "[A=1]");
    EXPECT_EQ(m_push.getDataLength(), 1);
}

TEST_F(PushMessage, TextEndsAtTheFirstZeroByte) {
    feed(std::string("PO\r\nA:1\0\r\n\r\nx", 14));
    EXPECT_EQ(headers(), "");
    EXPECT_EQ(m_push.getDataLength(), -1);
}

TEST_F(PushMessage, DataMayHoldZeroBytes) {
    feed("PO\r\n\r\n" + std::string("\0\1\2", 3));
    m_push.createData();
    EXPECT_EQ(m_push.getData(), "AAEC");
}

TEST_F(PushMessage, ContentLengthIsReadLeniently) {
    feed("PO\r\nContent-Length: \t12abc\r\n\r\nx");
    EXPECT_EQ(m_push.getContentLength(), 12);
}

TEST_F(PushMessage, NegativeContentLengthIsNone) {
    feed("PO\r\nContent-Length: -3\r\n\r\nx");
    EXPECT_EQ(m_push.getContentLength(), 0);
    EXPECT_FALSE(m_push.hasMoreData());
}

TEST_F(PushMessage, FirstReadWithoutDataIsComplete) {
    feed("PO\r\nContent-Length: 5\r\n\r\n");
    EXPECT_EQ(m_push.getDataLength(), 0);
    EXPECT_FALSE(m_push.hasMoreData());
}

TEST_F(PushMessage, EmptyDataEncodesToNothingWithoutError) {
    feed("PO\r\n\r\n");
    m_push.createData();
    EXPECT_EQ(m_push.getErrorCode(), 0);
    EXPECT_EQ(m_push.getData(), "");
}

TEST_F(PushMessage, PushWithoutEmptyLineCannotBeEncoded) {
    feed("POST /\r\nA:1\r\n");
    m_push.createData();
    EXPECT_EQ(m_push.getErrorCode(), 10109);
    EXPECT_TRUE(
        wasLogged(3, "QuilPushMessage:createData: error convert to base64 string: error[-1]"));
}

TEST_F(PushMessage, EmptyPushCannotBeEncoded) {
    feed("");
    m_push.createData();
    EXPECT_EQ(m_push.getErrorCode(), 10109);
}

TEST_F(PushMessage, DataOf11517BytesFitsAndOneMoreDoesNot) {
    feed("PO\r\n\r\n" + std::string(11517, 'x'));
    m_push.createData();
    EXPECT_EQ(m_push.getErrorCode(), 0);
    EXPECT_EQ(m_push.getData().size(), 15356U);

    QuilPushMessage larger("app", "");
    const std::string bytes = "PO\r\n\r\n" + std::string(11518, 'x');
    larger.setPayload(bytes.data(), static_cast<int>(bytes.size()));
    larger.createData();
    EXPECT_EQ(larger.getErrorCode(), 10109);
    EXPECT_EQ(larger.getData(), "");
}

TEST_F(PushMessage, PayloadKeeps15360BytesAndCountsWhatCame) {
    feed("PO\r\n\r\n" + std::string(15000, 'x'));
    feed(std::string(1000, 'y'));
    EXPECT_EQ(m_push.getPayloadLength(), 15360);
    EXPECT_TRUE(m_push.isPayloadFull());
    EXPECT_EQ(m_push.getDataLength(), 16000);
    m_push.createData();
    EXPECT_EQ(m_push.getErrorCode(), 10109);
}

TEST_F(PushMessage, CopyHasEverythingOfItsOwn) {
    feed(kExample);
    m_push.setSocket(7);
    m_push.setErrorCode(3);
    const auto copy = std::make_unique<QuilPushMessage>(m_push);
    EXPECT_EQ(copy->getName(), "app");
    EXPECT_EQ(copy->getId(), " m1");
    EXPECT_EQ(copy->getClientId(), "@ipc.1");
    EXPECT_EQ(copy->getSocket(), 7);
    EXPECT_EQ(copy->getErrorCode(), 3);
    EXPECT_EQ(copy->getDataPosition(), 60);
    EXPECT_EQ(copy->getContentLength(), 5);
    ASSERT_EQ(copy->getHttpHeaders().size(), 2U);
    EXPECT_NE(copy->getHttpHeaders()[0].get(), m_push.getHttpHeaders()[0].get());
    copy->createData();
    EXPECT_EQ(copy->getData(), "aGVsbG8=");
    EXPECT_EQ(m_push.getData(), "");
}
