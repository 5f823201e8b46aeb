// The object encoder: lines at top level, JSON below, and no way to smuggle in a line.

#include "platform/pps/encoder.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

class Encoder : public ::testing::Test {
  protected:
    Encoder() { pps_encoder_initialize(&m_encoder, false); }

    std::string text() const {
        return std::string(pps_encoder_buffer(&m_encoder), pps_encoder_length(&m_encoder));
    }

    pps_encoder_t m_encoder;
};

}  // namespace

TEST_F(Encoder, ObjectNameGetsItsSign) {
    pps_encoder_start_object(&m_encoder, "quilagent");
    EXPECT_EQ(pps_encoder_end_object(&m_encoder), PPS_ENCODER_OK);
    EXPECT_EQ(text(), "@quilagent\n");
}

TEST_F(Encoder, ObjectNameWithItsSignIsKept) {
    pps_encoder_start_object(&m_encoder, "@ipc.17");
    EXPECT_EQ(text(), "@ipc.17\n");
}

TEST_F(Encoder, NullOrEmptyNameWritesNoLine) {
    pps_encoder_start_object(&m_encoder, nullptr);
    pps_encoder_end_object(&m_encoder);
    pps_encoder_start_object(&m_encoder, "");
    pps_encoder_end_object(&m_encoder);
    EXPECT_EQ(text(), "");
}

TEST_F(Encoder, AttributesOfEveryKindAreLines) {
    pps_encoder_start_object(&m_encoder, "a");
    pps_encoder_add_string(&m_encoder, "s", "x y");
    pps_encoder_add_int(&m_encoder, "n", -5);
    pps_encoder_add_bool(&m_encoder, "b", true);
    pps_encoder_end_object(&m_encoder);
    EXPECT_EQ(text(), "@a\ns::x y\nn:n:-5\nb:b:true\n");
}

TEST_F(Encoder, StringWithControlBytesOrBackslashIsWrittenWithEscapes) {
    pps_encoder_start_object(&m_encoder, "a");
    pps_encoder_add_string(&m_encoder, "s", "1\nevil::2\\");
    EXPECT_EQ(text(), "@a\ns:c:1\\nevil::2\\\\\n");
}

TEST_F(Encoder, NestedObjectsAndArraysAreOneLineOfJson) {
    pps_encoder_start_object(&m_encoder, "q");
    pps_encoder_start_object(&m_encoder, "dat");
    pps_encoder_start_array(&m_encoder, "sessions");
    for (int i = 0; i < 2; ++i) {
        pps_encoder_start_object(&m_encoder, nullptr);
        pps_encoder_add_string(&m_encoder, "id", "a");
        pps_encoder_add_int(&m_encoder, "port", i);
        pps_encoder_end_object(&m_encoder);
    }
    pps_encoder_end_array(&m_encoder);
    pps_encoder_add_bool(&m_encoder, "last", false);
    pps_encoder_end_object(&m_encoder);
    pps_encoder_end_object(&m_encoder);
    EXPECT_EQ(text(),
              "@q\ndat:json:{\"sessions\":[{\"id\":\"a\",\"port\":0},{\"id\":\"a\",\"port\":1}],"
              "\"last\":false}\n");
}

TEST_F(Encoder, EmptyArrayAndObjectAreWritten) {
    pps_encoder_start_object(&m_encoder, "q");
    pps_encoder_start_object(&m_encoder, "dat");
    pps_encoder_start_array(&m_encoder, "sessions");
    pps_encoder_end_array(&m_encoder);
    pps_encoder_end_object(&m_encoder);
    EXPECT_EQ(text(), "@q\ndat:json:{\"sessions\":[]}\n");
}

TEST_F(Encoder, ArrayAtTopLevelIsOneLine) {
    pps_encoder_start_object(&m_encoder, "q");
    pps_encoder_start_array(&m_encoder, "list");
    pps_encoder_add_int(&m_encoder, "", 1);
    pps_encoder_add_string(&m_encoder, "", "x");
    pps_encoder_end_array(&m_encoder);
    EXPECT_EQ(text(), "@q\nlist:json:[1,\"x\"]\n");
}

TEST_F(Encoder, EqualKeysAreAllWrittenInOrder) {
    pps_encoder_start_object(&m_encoder, "q");
    pps_encoder_start_object(&m_encoder, "h");
    pps_encoder_add_string(&m_encoder, "Via", "1");
    pps_encoder_add_string(&m_encoder, "Via", "2");
    pps_encoder_end_object(&m_encoder);
    EXPECT_EQ(text(), "@q\nh:json:{\"Via\":\"1\",\"Via\":\"2\"}\n");
}

TEST_F(Encoder, KeysInsideJsonMayHoldAnyBytes) {
    pps_encoder_start_object(&m_encoder, "q");
    pps_encoder_start_object(&m_encoder, "h");
    pps_encoder_add_string(&m_encoder, "a\"\n:b", "x");
    pps_encoder_end_object(&m_encoder);
    EXPECT_EQ(text(), "@q\nh:json:{\"a\\\"\\n:b\":\"x\"}\n");
}

TEST_F(Encoder, AttributeNameThatWouldReadAsSomethingElseIsRefused) {
    pps_encoder_start_object(&m_encoder, "q");
    for (const char* name : {"", "a:b", "a\nb", "@a", "-a", "+a", "a\\b"}) {
        EXPECT_EQ(pps_encoder_add_string(&m_encoder, name, "x"), PPS_ENCODER_ERROR) << name;
        EXPECT_EQ(pps_encoder_add_int(&m_encoder, name, 1), PPS_ENCODER_ERROR) << name;
    }
    EXPECT_EQ(text(), "@q\n");
}

TEST_F(Encoder, RefusedObjectSwallowsItsContents) {
    pps_encoder_start_object(&m_encoder, "q");
    EXPECT_EQ(pps_encoder_start_object(&m_encoder, "a:b"), PPS_ENCODER_ERROR);
    EXPECT_EQ(pps_encoder_add_int(&m_encoder, "x", 1), PPS_ENCODER_ERROR);
    EXPECT_EQ(pps_encoder_start_array(&m_encoder, "y"), PPS_ENCODER_ERROR);
    pps_encoder_end_array(&m_encoder);
    pps_encoder_end_object(&m_encoder);
    pps_encoder_add_int(&m_encoder, "z", 2);
    EXPECT_EQ(text(), "@q\nz:n:2\n");
}

TEST_F(Encoder, ObjectNameThatCouldAddALineIsRefused) {
    EXPECT_EQ(pps_encoder_start_object(&m_encoder, "a\nb::c"), PPS_ENCODER_ERROR);
    pps_encoder_add_string(&m_encoder, "x", "y");
    pps_encoder_end_object(&m_encoder);
    EXPECT_EQ(text(), "");
}

TEST_F(Encoder, EndsWithoutTheirStartAreRefused) {
    EXPECT_EQ(pps_encoder_end_object(&m_encoder), PPS_ENCODER_ERROR);
    pps_encoder_start_object(&m_encoder, "q");
    EXPECT_EQ(pps_encoder_end_array(&m_encoder), PPS_ENCODER_ERROR);
    EXPECT_EQ(pps_encoder_add_string(&m_encoder, "a", "b"), PPS_ENCODER_OK);
}

TEST_F(Encoder, AttributeOutsideAnObjectIsRefused) {
    EXPECT_EQ(pps_encoder_add_string(&m_encoder, "a", "b"), PPS_ENCODER_ERROR);
    EXPECT_EQ(pps_encoder_start_array(&m_encoder, "a"), PPS_ENCODER_ERROR);
    EXPECT_EQ(text(), "");
}

TEST_F(Encoder, ResetForgetsTheTextAndTheOpenLevels) {
    pps_encoder_start_object(&m_encoder, "q");
    pps_encoder_start_object(&m_encoder, "dat");
    pps_encoder_reset(&m_encoder);
    pps_encoder_start_object(&m_encoder, "r");
    EXPECT_EQ(text(), "@r\n");
}

TEST_F(Encoder, CleanupLeavesAnEmptyEncoder) {
    pps_encoder_start_object(&m_encoder, "q");
    pps_encoder_cleanup(&m_encoder);
    EXPECT_EQ(text(), "");
}

TEST(JsonEncoder, WholeObjectIsOneLineOfJson) {
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, true);
    pps_encoder_start_object(&encoder, "ignored");
    pps_encoder_add_string(&encoder, "a:b", "x\ny");
    pps_encoder_start_object(&encoder, "o");
    pps_encoder_end_object(&encoder);
    pps_encoder_add_int(&encoder, "n", 1);
    pps_encoder_end_object(&encoder);
    EXPECT_STREQ(pps_encoder_buffer(&encoder), "{\"a:b\":\"x\\ny\",\"o\":{},\"n\":1}\n");
}
