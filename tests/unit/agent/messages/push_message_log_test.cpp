// What the push message says about its work, and that it copes with a lack of memory.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "agent/support/log.hpp"
#include "tests/support/agent/failing_new.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/unit/agent/messages/push_message_fixture.hpp"

TEST_F(PushMessage, ReceivingIsLoggedStepByStep) {
    raiseVerbosity(2);
    feed("PO\r\nA:1\r\nContent-Length:1\r\nPush-Message-ID:m\r\n\r\nd");
    EXPECT_EQ(recordedText(),
              "6 setPayload: len [49] "
              "payload[PO\r\nA:1\r\nContent-Length:1\r\nPush-Message-ID:m\r\n\r\nd]\n"
              "6 ***parsePayload: size of payload_str 49 payload[PO\r\nA:1\r\nContent-Length:1\r\n"
              "Push-Message-ID:m\r\n\r\nd]\n\n"
              "6 parsePayload: cur_pos 0 newline_pos 2 done = 0\n"
              "6 parsePayload: Current token: [PO] token len [2]\n"
              "6 header done [0]\n\n"
              "6 parsePayload: colon_pos -1\n\n"
              "6 parsePayload: Ignoring PO since : not found\n"
              "6 parsePayload: cur_pos 3 newline_pos 7 done = 0\n\n"
              "6 parsePayload: Current token: [\nA:1] token len [4]\n"
              "6 header done [0]\n\n"
              "6 parsePayload: colon_pos 2\n\n"
              "6 parsePayload: name is [A]\n\n"
              "6 parsePayload: value is [1]\n\n"
              "6 parsePayload: cur_pos 8 newline_pos 25 done = 0\n\n"
              "6 parsePayload: Current token: [\nContent-Length:1] token len [17]\n"
              "6 header done [0]\n\n"
              "6 parsePayload: colon_pos 15\n\n"
              "6 parsePayload: name is [Content-Length]\n\n"
              "6 parsePayload: value is [1]\n\n"
              "6 parsePayload: cur_pos 26 newline_pos 44 done = 0\n\n"
              "6 parsePayload: Current token: [\nPush-Message-ID:m] token len [18]\n"
              "6 header done [0]\n\n"
              "6 parsePayload: colon_pos 16\n\n"
              "6 parsePayload: name is [Push-Message-ID]\n\n"
              "6 parsePayload: value is [m]\n\n"
              "6 found [Push-Message-ID] and value [m]\n"
              "6 parsePayload: cur_pos 45 newline_pos 46 done = 0\n\n"
              "6 parsePayload: Current token: [\n] token len [1]\n"
              "6 parsePayload: Got new line so header is done.\n\n"
              "6 header done [1]\n\n"
              "6 parsePayload: len[1] Data portion [d] \n"
              "6 content length[1] data length[1] data position[48]\n"
              "6 QuilPushMessage::parsePayload: number of headers: 3 currentPos[45]\n"
              "6 parsePayload: name [A] value[1]\n\n"
              "6 parsePayload: name [Content-Length] value[1]\n\n"
              "6 parsePayload: name [Push-Message-ID] value[m]\n\n");
}

TEST_F(PushMessage, EmptyPayloadIsLoggedAsDoneAtOnce) {
    raiseVerbosity(2);
    feed("");
    EXPECT_EQ(recordedText(),
              "6 setPayload: len [0] payload[]\n"
              "6 ***parsePayload: size of payload_str 0 payload[]\n\n"
              "6 parsePayload: cur_pos 0 newline_pos -1 done = 1\n"
              "6 QuilPushMessage::parsePayload: number of headers: 0 currentPos[0]\n");
}

TEST_F(PushMessage, RestWithoutALineEndIsLoggedAsIgnored) {
    raiseVerbosity(2);
    feed("A:1");
    EXPECT_EQ(recordedText(),
              "6 setPayload: len [3] payload[A:1]\n"
              "6 ***parsePayload: size of payload_str 3 payload[A:1]\n\n"
              "6 parsePayload: cur_pos 0 newline_pos -1 done = 0\n"
              "6 parsePayload: Current token: [A:1] token len [3]\n"
              "6 header done [0]\n\n"
              "6 parsePayload: colon_pos -1\n\n"
              "6 parsePayload: Ignoring A:1 since : not found\n"
              "6 parsePayload: cur_pos 3 newline_pos -1 done = 1\n\n"
              "6 QuilPushMessage::parsePayload: number of headers: 0 currentPos[3]\n");
}

TEST_F(PushMessage, LoneLineFeedAtTheEndIsLoggedAsIgnored) {
    raiseVerbosity(2);
    feed("PO\r\n");
    EXPECT_EQ(recordedText(),
              "6 setPayload: len [4] payload[PO\r\n]\n"
              "6 ***parsePayload: size of payload_str 4 payload[PO\r\n]\n\n"
              "6 parsePayload: cur_pos 0 newline_pos 2 done = 0\n"
              "6 parsePayload: Current token: [PO] token len [2]\n"
              "6 header done [0]\n\n"
              "6 parsePayload: colon_pos -1\n\n"
              "6 parsePayload: Ignoring PO since : not found\n"
              "6 parsePayload: cur_pos 3 newline_pos -1 done = 0\n\n"
              "6 parsePayload: Current token: [\n] token len [1]\n"
              "6 header done [0]\n\n"
              "6 parsePayload: colon_pos -1\n\n"
              "6 parsePayload: Ignoring \n since : not found\n"
              "6 parsePayload: cur_pos 4 newline_pos -1 done = 1\n\n"
              "6 QuilPushMessage::parsePayload: number of headers: 0 currentPos[4]\n");
}

TEST_F(PushMessage, AskingForMoreIsLogged) {
    raiseVerbosity(2);
    static_cast<void>(m_push.hasMoreData());
    EXPECT_EQ(recordedText(), "6 hasMoreData: m_contentLength[-1] m_dataLength[-1]\n");
}

TEST_F(PushMessage, EncodingIsLogged) {
    raiseVerbosity(2);
    feed("PO\r\n\r\na");
    clearRecordedLines();
    m_push.createData();
    EXPECT_EQ(recordedText(),
              "6 QuilPushMessage::createData: data_length[4]\n"
              "6 QuilPushMessage::createData: data[YQ==][YQ==]\n"
              "6 QuilPushMessage::createData: data size is [4]\n"
              "6 QuilPushMessage::createData: actual data is [YQ==]\n");
}

TEST_F(PushMessage, FailedEncodingIsLoggedAsAFailure) {
    raiseVerbosity(2);
    m_push.createData();
    EXPECT_EQ(recordedText(),
              "6 QuilPushMessage::createData: data_length[-1]\n"
              "3 QuilPushMessage:createData: error convert to base64 string: error[-1]\n"
              "6 QuilPushMessage::createData: data size is [0]\n"
              "6 QuilPushMessage::createData: actual data is []\n");
}

TEST_F(PushMessage, WritingTheDataIsLogged) {
    raiseVerbosity(2);
    feed("PO\r\nA:1\r\n\r\na");
    m_push.createData();
    clearRecordedLines();
    encoded();
    EXPECT_EQ(recordedText(),
              "6 addData: data len is 4\n"
              "6 addData: data [YQ==]\n\n"
              "6 addData: header_count [1]\n"
              "5 addData: name [A] value[1]\n");
}

TEST_F(PushMessage, CopyingHeadersIsLogged) {
    raiseVerbosity(2);
    feed("PO\r\nA:1\r\n\r\na");
    clearRecordedLines();
    const QuilPushMessage copy(m_push);
    EXPECT_EQ(recordedText(),
              "6 copyHttpHeaders: src http headers size [1]\n6 Copy: name[A] value[1]\n");
}

TEST(PushMessageEnd, HeadersAreLoggedWhenTheyAreFreed) {
    auto push = std::make_unique<QuilPushMessage>("app", "");
    push->setPayload("PO\r\nA:1\r\nB:2\r\n\r\n", 16);
    clearRecordedLines();
    push.reset();
    EXPECT_EQ(recordedText(),
              "5 freeHttpHeaders: name [A] value[1]\n5 freeHttpHeaders: name [B] value[2]\n");
}

TEST(PushMessageEnd, LackOfMemoryDoesNotStopTheDestructor) {
    auto push = std::make_unique<QuilPushMessage>("app", "");
    const std::string bytes = "PO\r\nA:" + std::string(100, 'v') + "\r\n\r\n";
    push->setPayload(bytes.data(), static_cast<int>(bytes.size()));
    t_failsNextNew = true;
    push.reset();
    t_failsNextNew = false;
    EXPECT_TRUE(
        wasLogged(3, "freeHttpHeaders: exception occurred when trying to log the http headers"))
        << recordedText();
}

TEST_F(PushMessage, HeaderThatCannotBeWrittenForWantOfMemoryIsLoggedAndTheRestStays) {
    feed("PO\r\nA:" + std::string(100, 'v') + "\r\n\r\n");
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, nullptr);
    encoder.m_text.reserve(1000);
    encoder.m_levels.reserve(10);
    t_failsNextNew = true;
    EXPECT_TRUE(m_push.addData(&encoder));
    t_failsNextNew = false;
    pps_encoder_end_object(&encoder);
    EXPECT_STREQ(pps_encoder_buffer(&encoder), "appLevelAck:n:0\ndata::\nhttpHeaders:json:{}\n");
    EXPECT_TRUE(wasLogged(3,
                          "addData: exception occurred when trying to add the http header name "
                          "and value to the pps data"))
        << recordedText();
}
