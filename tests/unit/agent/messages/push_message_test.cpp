// The push message: cutting a payload into headers and data, the base64 form of the data, and what
// it writes into a notification.

#include "agent/messages/push_message.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "agent/support/log.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/unit/agent/messages/push_message_fixture.hpp"

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

TEST_F(PushMessage, ShortDataBehindLongHeadersThatIsNotHeldWholeIsRefused) {
    feed("PO\r\nA:" + std::string(15000, 'h') + "\r\n\r\n" + std::string(400, 'x'));
    EXPECT_EQ(m_push.getDataLength(), 400);
    m_push.createData();
    EXPECT_EQ(m_push.getErrorCode(), 10109);
    EXPECT_EQ(m_push.getData(), "");
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

TEST_F(PushMessage, AssignmentReplacesEverything) {
    feed("PO\r\nA:1\r\nB:2\r\nC:3\r\nPush-Message-ID:old\r\n\r\n" + std::string(500, 'x'));
    m_push.createData();
    QuilPushMessage other("other", "@ipc.2");
    other.setPayload(kExample.data(), static_cast<int>(kExample.size()));
    other.setSocket(9);
    other.setErrorCode(4);
    m_push = other;
    EXPECT_EQ(m_push.getName(), "other");
    EXPECT_EQ(m_push.getId(), " m1");
    EXPECT_EQ(m_push.getClientId(), "@ipc.2");
    EXPECT_EQ(headers(), "[Content-Length= 5][Push-Message-ID= m1]");
    EXPECT_EQ(m_push.getPayloadLength(), 65);
    EXPECT_EQ(m_push.getContentLength(), 5);
    EXPECT_EQ(m_push.getDataPosition(), 60);
    EXPECT_EQ(m_push.getDataLength(), 5);
    EXPECT_EQ(m_push.getData(), "");
    EXPECT_EQ(m_push.getSocket(), 9);
    EXPECT_EQ(m_push.getErrorCode(), 4);
    m_push.createData();
    EXPECT_EQ(m_push.getData(), "aGVsbG8=");
}

TEST_F(PushMessage, AssignmentLeavesNothingOfALongerPayload) {
    feed("PO\r\n\r\nabc\r\nB:2\r\n\r\n");
    QuilPushMessage other("app", "");
    other.setPayload("PO\r\nA:", 6);
    m_push = other;
    feed("1\r\n");
    EXPECT_EQ(headers(), "[A=1]");
    EXPECT_EQ(m_push.getDataLength(), -1);
}

TEST_F(PushMessage, AssignmentToItselfChangesNothing) {
    feed(kExample);
    const QuilPushMessage& same = m_push;
    m_push = same;
    EXPECT_EQ(headers(), "[Content-Length= 5][Push-Message-ID= m1]");
    EXPECT_EQ(m_push.getDataLength(), 5);
}

TEST_F(PushMessage, FeedingACopyGoesOnWhereTheOriginalStood) {
    feed("PO\r\nContent-Length:5\r\n\r\nhe");
    QuilPushMessage copy(m_push);
    copy.setPayload("llo", 3);
    copy.createData();
    EXPECT_EQ(copy.getData(), "aGVsbG8=");
    EXPECT_EQ(m_push.getDataLength(), 2);
}

TEST_F(PushMessage, CopyKeepsTheEncodedData) {
    feed(kExample);
    m_push.createData();
    EXPECT_EQ(QuilPushMessage(m_push).getData(), "aGVsbG8=");
}

TEST_F(PushMessage, DataIsWrittenInItsOrder) {
    feed(kExample);
    m_push.createData();
    EXPECT_EQ(encoded(),
              "appLevelAck:n:0\ndata::aGVsbG8=\n"
              "httpHeaders:json:{\"Content-Length\":\" 5\",\"Push-Message-ID\":\" m1\"}\n");
}

TEST_F(PushMessage, HeldSocketMeansThatAnAnswerIsAwaited) {
    m_push.setSocket(0);
    EXPECT_EQ(encoded(), "appLevelAck:n:1\ndata::\n");
    m_push.setSocket(300);
    EXPECT_EQ(encoded(), "appLevelAck:n:1\ndata::\n");
}

TEST_F(PushMessage, WithoutHeadersThereIsNoHttpHeaders) {
    feed("PO\r\n\r\nx");
    m_push.createData();
    EXPECT_EQ(encoded(), "appLevelAck:n:0\ndata::eA==\n");
}

TEST_F(PushMessage, EqualHeadersAreAllWritten) {
    feed("PO\r\nA:1\r\nA:2\r\n:3\r\n\r\n");
    EXPECT_EQ(encoded(),
              "appLevelAck:n:0\ndata::\nhttpHeaders:json:{\"A\":\"1\",\"A\":\"2\",\"\":\"3\"}\n");
}

TEST_F(PushMessage, HeaderCannotForgeALineOfTheNotification) {
    feed("PO\r\nA:1\n\"x\\\tmsg::evil\n\r\n\r\n");
    EXPECT_EQ(encoded(),
              "appLevelAck:n:0\ndata::\n"
              "httpHeaders:json:{\"A\":\"1\\n\\\"x\\\\\\tmsg::evil\\n\"}\n");
}

TEST_F(PushMessage, BytesThatAreNoTextAreReplacedInHeaders) {
    feed("PO\r\nA:\xff\xc3\xa4\r\n\r\n");
    EXPECT_NE(encoded().find("{\"A\":\"\xEF\xBF\xBD\xc3\xa4\"}"), std::string::npos) << encoded();
}

TEST_F(PushMessage, LastPushIdHeaderCounts) {
    feed("PO\r\nPush-Message-ID:a\r\nPush-Message-ID:b\r\n\r\n");
    EXPECT_EQ(m_push.getId(), "b");
}

TEST_F(PushMessage, LastContentLengthCounts) {
    feed("PO\r\nContent-Length:7\r\nContent-Length:3\r\n\r\nab");
    EXPECT_EQ(m_push.getContentLength(), 3);
}

TEST_F(PushMessage, PushIdInOtherLettersIsAHeaderWithoutEffect) {
    feed("PO\r\npush-message-id:a\r\n\r\n");
    EXPECT_EQ(headers(), "[push-message-id=a]");
    EXPECT_EQ(m_push.getId().substr(0, 3), "app");
}

TEST_F(PushMessage, NameWithABlankBeforeTheColonIsAnotherName) {
    feed("PO\r\nContent-Length : 5\r\n\r\nx");
    EXPECT_EQ(m_push.getContentLength(), -1);
}

TEST_F(PushMessage, ContentLengthOnTheFirstLineLosesItsFirstLetterAndItsEffect) {
    feed("Content-Length: 5\r\n\r\nx");
    EXPECT_EQ(headers(), "[ontent-Length= 5]");
    EXPECT_EQ(m_push.getContentLength(), -1);
}

TEST_F(PushMessage, HugeContentLengthIsClamped) {
    feed("PO\r\nContent-Length: 99999999999\r\n\r\nx");
    EXPECT_EQ(m_push.getContentLength(), 2147483647);
    EXPECT_TRUE(m_push.hasMoreData());
}

TEST_F(PushMessage, ContentLengthOfZeroWantsNoMore) {
    feed("PO\r\nContent-Length: 0\r\n\r\nx");
    EXPECT_EQ(m_push.getContentLength(), 0);
    EXPECT_FALSE(m_push.hasMoreData());
}

TEST_F(PushMessage, ContentLengthOfOneIsTheSmallestThatCounts) {
    feed("PO\r\nContent-Length: 1\r\n\r\nx");
    EXPECT_FALSE(m_push.hasMoreData());
    QuilPushMessage two("app", "");
    two.setPayload("PO\r\nContent-Length: 2\r\n\r\nx", 26);
    EXPECT_TRUE(two.hasMoreData());
}

TEST_F(PushMessage, MoreDataThanAnnouncedIsComplete) {
    feed("PO\r\nContent-Length: 2\r\n\r\nabcdef");
    EXPECT_FALSE(m_push.hasMoreData());
    m_push.createData();
    EXPECT_EQ(m_push.getData(), "YWJjZGVm");
}

TEST_F(PushMessage, LineFeedAloneEndsNoLine) {
    feed("PO\nA:1\nB:2\n\nx\r\n\r\ny");
    EXPECT_EQ(headers(), "[O\nA=1\nB:2\n\nx]");
    EXPECT_EQ(m_push.getDataLength(), 1);
}

TEST_F(PushMessage, CarriageReturnAloneEndsNoLine) {
    feed("PO\rA:1\r\n\r\ny");
    EXPECT_EQ(headers(), "[O\rA=1]");
}

TEST_F(PushMessage, EmptyLinesInTheDataAreData) {
    feed("PO\r\n\r\n\r\n\r\nA:1\r\n");
    EXPECT_EQ(headers(), "");
    EXPECT_EQ(m_push.getDataPosition(), 6);
    EXPECT_EQ(m_push.getDataLength(), 9);
}

TEST_F(PushMessage, IdMadeForAnUnclosedHeaderBlockStays) {
    feed("PO\r\nA:1\r\n");
    const std::string made = m_push.getId();
    ASSERT_NE(made, "");
    feed("\r\nx");
    EXPECT_EQ(m_push.getId(), made);
}

TEST_F(PushMessage, IdHeaderOfALaterReadReplacesTheOneThatWasMade) {
    feed("PO\r\nA:1\r\n");
    feed("Push-Message-ID:m2\r\n\r\nx");
    EXPECT_EQ(m_push.getId(), "m2");
}

TEST_F(PushMessage, PayloadWithoutEndIsBoundedAndRefused) {
    const std::string endless(15360, 'h');
    feed(endless);
    feed(endless);
    EXPECT_EQ(m_push.getPayloadLength(), 15360);
    EXPECT_EQ(headers(), "");
    m_push.createData();
    EXPECT_EQ(m_push.getErrorCode(), 10109);
}

TEST_F(PushMessage, PayloadOf15360BytesIsFullAndHeldWhole) {
    feed("PO\r\n\r\n" + std::string(15353, 'x'));
    EXPECT_FALSE(m_push.isPayloadFull());
    feed("y");
    EXPECT_TRUE(m_push.isPayloadFull());
    EXPECT_EQ(m_push.getDataLength(), 15354);
}

TEST_F(PushMessage, FailedEncodingKeepsTheFirstCodeAndTheOldData) {
    feed(kExample);
    m_push.createData();
    m_push.setErrorCode(500);
    feed(std::string(15360, 'x'));
    m_push.createData();
    EXPECT_EQ(m_push.getErrorCode(), 500);
    EXPECT_EQ(m_push.getData(), "aGVsbG8=");
}

TEST_F(PushMessage, FillCharactersStandAtTheEndOfTheData) {
    for (const auto& [data, base64] :
         {std::pair{"\xfb\xff\xfe", "+//+"}, {"a", "YQ=="}, {"ab", "YWI="}}) {
        QuilPushMessage push("app", "");
        const std::string bytes = std::string("PO\r\n\r\n") + data;
        push.setPayload(bytes.data(), static_cast<int>(bytes.size()));
        push.createData();
        EXPECT_EQ(push.getData(), base64);
    }
}

TEST(HttpHeader, IsEmptyOrHasWhatItWasGiven) {
    const QuilHttpHeader empty;
    EXPECT_EQ(empty.getName(), "");
    EXPECT_EQ(empty.getValue(), "");
    const QuilHttpHeader header(" A ", " b ");
    EXPECT_EQ(header.getName(), " A ");
    EXPECT_EQ(header.getValue(), " b ");
}

TEST(HttpHeader, NameAndValueCanBeReplaced) {
    QuilHttpHeader header("A", "1");
    header.setName("B");
    EXPECT_EQ(header.getName() + header.getValue(), "B1");
    header.setValue("2");
    EXPECT_EQ(header.getName() + header.getValue(), "B2");
}

static_assert(std::has_virtual_destructor_v<QuilHttpHeader>);
static_assert(std::has_virtual_destructor_v<QuilPushMessage>);

// Many of them may wait: each takes the memory of what it holds.
TEST_F(PushMessage, SmallPushIsASmallObject) {
    EXPECT_LT(sizeof(QuilPushMessage), 1024U);
}
