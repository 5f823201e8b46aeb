// The object decoder: names, flags, levels, types, damaged text.

#include "platform/pps/decoder.hpp"

#include <gtest/gtest.h>

#include <string>

#include "platform/pps/encoder.hpp"

namespace {

class Decoder : public ::testing::Test {
  protected:
    pps_decoder_error_t parse(const std::string& text) {
        return pps_decoder_initialize(&m_decoder, text.c_str());
    }

    // Parses and enters the object.
    void enter(const std::string& text) {
        ASSERT_EQ(parse(text), PPS_DECODER_OK);
        ASSERT_EQ(pps_decoder_push(&m_decoder, nullptr), PPS_DECODER_OK);
    }

    // The string, or the error in words.
    std::string get(const char* name) {
        std::string value;
        switch (pps_decoder_get_string(&m_decoder, name, &value)) {
            case PPS_DECODER_OK:
                return value;
            case PPS_DECODER_BAD_TYPE:
                return "<bad type>";
            default:
                return "<absent>";
        }
    }

    pps_decoder_t m_decoder;
};

}  // namespace

TEST_F(Decoder, NullTextIsAnEmptyOne) {
    EXPECT_EQ(pps_decoder_initialize(&m_decoder, nullptr), PPS_DECODER_OK);
    EXPECT_EQ(pps_decoder_length(&m_decoder), 0);
    EXPECT_STREQ(pps_decoder_name(&m_decoder), "");
    EXPECT_EQ(pps_decoder_push(&m_decoder, nullptr), PPS_DECODER_ABSENT);
}

TEST_F(Decoder, NameKeepsItsSign) {
    parse("@ipc.17\nmsg::x\n");
    EXPECT_STREQ(pps_decoder_name(&m_decoder), "@ipc.17");
    EXPECT_EQ(pps_decoder_flags(&m_decoder), 0U);
}

TEST_F(Decoder, PlusMeansCreated) {
    EXPECT_EQ(parse("+@ipc.1\n"), PPS_DECODER_OK);
    EXPECT_EQ(pps_decoder_flags(&m_decoder), PPS_FLAG_CREATED);
    EXPECT_STREQ(pps_decoder_name(&m_decoder), "@ipc.1");
}

TEST_F(Decoder, MinusMeansDeleted) {
    EXPECT_EQ(parse("-@ipc.1\n"), PPS_DECODER_OK);
    EXPECT_EQ(pps_decoder_flags(&m_decoder), PPS_FLAG_DELETED);
}

TEST_F(Decoder, OutsideTheObjectLengthCountsObjects) {
    parse("@a\n");
    EXPECT_EQ(pps_decoder_length(&m_decoder), 1);
    parse("x::1\n");
    EXPECT_EQ(pps_decoder_length(&m_decoder), 1);
    parse("");
    EXPECT_EQ(pps_decoder_length(&m_decoder), 0);
}

TEST_F(Decoder, InsideLengthCountsAttributes) {
    enter("@a\nx::1\ny:n:2\n");
    EXPECT_EQ(pps_decoder_length(&m_decoder), 2);
}

TEST_F(Decoder, NothingCanBeReadBeforeTheObjectIsEntered) {
    parse("@a\nx::1\n");
    EXPECT_EQ(get("x"), "<absent>");
    EXPECT_EQ(pps_decoder_push(&m_decoder, "x"), PPS_DECODER_ABSENT);
}

TEST_F(Decoder, StringsPlainAndEscaped) {
    enter("@a\nplain::a\\nb\nescaped:c:a\\nb\nempty::\n");
    EXPECT_EQ(get("plain"), "a\\nb");
    EXPECT_EQ(get("escaped"), "a\nb");
    EXPECT_EQ(get("empty"), "");
    EXPECT_EQ(get("none"), "<absent>");
}

TEST_F(Decoder, NumbersAndBooleansAreNoStrings) {
    enter("@a\nn:n:5\nb:b:true\no:json:{}\n");
    EXPECT_EQ(get("n"), "<bad type>");
    EXPECT_EQ(get("b"), "<bad type>");
    EXPECT_EQ(get("o"), "<bad type>");
}

TEST_F(Decoder, IntegersMustBeIntegersAndFit) {
    enter(
        "@a\nn:n:-5\nbig:n:2147483648\nsmall:n:-2147483649\nreal:n:1.5\ns::7\no:json:{\"u\":"
        "18446744073709551615}\n");
    int value = 99;
    EXPECT_EQ(pps_decoder_get_int(&m_decoder, "n", &value), PPS_DECODER_OK);
    EXPECT_EQ(value, -5);
    for (const char* name : {"big", "small", "real", "s", "o"}) {
        EXPECT_EQ(pps_decoder_get_int(&m_decoder, name, &value), PPS_DECODER_BAD_TYPE) << name;
    }
    EXPECT_EQ(pps_decoder_get_int(&m_decoder, "none", &value), PPS_DECODER_ABSENT);
    pps_decoder_push(&m_decoder, "o");
    EXPECT_EQ(pps_decoder_get_int(&m_decoder, "u", &value), PPS_DECODER_BAD_TYPE);
    EXPECT_EQ(value, -5);
}

TEST_F(Decoder, Booleans) {
    enter("@a\nyes:b:true\nno:b:false\nn:n:1\n");
    bool value = false;
    EXPECT_EQ(pps_decoder_get_bool(&m_decoder, "yes", &value), PPS_DECODER_OK);
    EXPECT_TRUE(value);
    EXPECT_EQ(pps_decoder_get_bool(&m_decoder, "no", &value), PPS_DECODER_OK);
    EXPECT_FALSE(value);
    EXPECT_EQ(pps_decoder_get_bool(&m_decoder, "n", &value), PPS_DECODER_BAD_TYPE);
    EXPECT_EQ(pps_decoder_get_bool(&m_decoder, "none", &value), PPS_DECODER_ABSENT);
}

TEST_F(Decoder, NestedObjectIsEnteredByNameAndLeftByPop) {
    enter("@a\nid::1\ndat:json:{\"providerApplicationId\":\"app\",\"id\":\"inner\"}\n");
    EXPECT_EQ(pps_decoder_push(&m_decoder, "dat"), PPS_DECODER_OK);
    EXPECT_EQ(get("providerApplicationId"), "app");
    EXPECT_EQ(get("id"), "inner");
    pps_decoder_pop(&m_decoder);
    EXPECT_EQ(get("id"), "1");
}

TEST_F(Decoder, AfterAFailedPushNothingIsFoundUntilTheMatchingPop) {
    enter("@a\nid::1\nx::y\n");
    EXPECT_EQ(pps_decoder_push(&m_decoder, "dat"), PPS_DECODER_ABSENT);
    EXPECT_EQ(get("id"), "<absent>");
    EXPECT_EQ(pps_decoder_length(&m_decoder), 0);
    EXPECT_EQ(pps_decoder_push(&m_decoder, "x"), PPS_DECODER_ABSENT);
    EXPECT_EQ(get("id"), "<absent>");
    pps_decoder_pop(&m_decoder);
    EXPECT_EQ(get("id"), "<absent>");
    pps_decoder_pop(&m_decoder);
    EXPECT_EQ(get("id"), "1");
}

TEST_F(Decoder, PushOntoAStringFails) {
    enter("@a\nx::y\n");
    EXPECT_EQ(pps_decoder_push(&m_decoder, "x"), PPS_DECODER_BAD_TYPE);
    EXPECT_EQ(pps_decoder_length(&m_decoder), 0);
}

TEST_F(Decoder, ExtraPopsAreHarmless) {
    enter("@a\nx::y\n");
    for (int i = 0; i < 5; ++i) {
        pps_decoder_pop(&m_decoder);
    }
    EXPECT_EQ(pps_decoder_push(&m_decoder, nullptr), PPS_DECODER_OK);
    EXPECT_EQ(get("x"), "y");
}

TEST_F(Decoder, UnnamedPushWalksTheElementsOfAnArray) {
    enter("@a\ndat:json:{\"sessions\":[{\"p\":\"1\"},{\"p\":\"2\"}]}\n");
    pps_decoder_push(&m_decoder, "dat");
    EXPECT_EQ(pps_decoder_push(&m_decoder, "sessions"), PPS_DECODER_OK);
    EXPECT_EQ(pps_decoder_length(&m_decoder), 2);
    std::string seen;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(pps_decoder_push(&m_decoder, nullptr), PPS_DECODER_OK);
        seen += get("p");
        pps_decoder_pop(&m_decoder);
    }
    EXPECT_EQ(seen, "12");
    EXPECT_EQ(pps_decoder_push(&m_decoder, nullptr), PPS_DECODER_ABSENT);
}

TEST_F(Decoder, UnnamedGetWalksTheElementsOfAnArray) {
    enter("@a\nl:json:[\"x\",\"y\"]\n");
    pps_decoder_push(&m_decoder, "l");
    EXPECT_EQ(get(nullptr), "x");
    EXPECT_EQ(get(nullptr), "y");
    EXPECT_EQ(get(nullptr), "<absent>");
    EXPECT_EQ(get("x"), "<absent>");
}

TEST_F(Decoder, LastOfEqualNamesWinsAndAllCanBeListed) {
    enter(
        "@a\nx::1\nx::2\nh:json:{\"Via\":\"a\",\"Via\":\"b\",\"n\":1.50,\"t\":true,\"z\":null}\n");
    EXPECT_EQ(get("x"), "2");
    pps_decoder_push(&m_decoder, "h");
    EXPECT_EQ(get("Via"), "b");
    std::string listed;
    std::string name;
    std::string value;
    for (int i = 0; pps_decoder_get_at(&m_decoder, i, &name, &value) == PPS_DECODER_OK; ++i) {
        listed.append(name).append("=").append(value).append(" ");
    }
    EXPECT_EQ(listed, "Via=a Via=b n=1.50 t=true z=null ");
}

TEST_F(Decoder, ListedObjectsGiveTheirNameOnly) {
    enter("@a\nh:json:{}\n");
    std::string name;
    std::string value = "kept";
    EXPECT_EQ(pps_decoder_get_at(&m_decoder, 0, &name, &value), PPS_DECODER_BAD_TYPE);
    EXPECT_EQ(name, "h");
    EXPECT_EQ(value, "kept");
    EXPECT_EQ(pps_decoder_get_at(&m_decoder, -1, &name, &value), PPS_DECODER_ABSENT);
}

TEST_F(Decoder, RemovedAttributesAreNone) {
    enter("@a\n-gone\nx::1\n");
    EXPECT_EQ(pps_decoder_length(&m_decoder), 1);
}

TEST_F(Decoder, LastLineWithoutItsLineFeedCounts) {
    enter("@a\nx::1");
    EXPECT_EQ(get("x"), "1");
}

TEST_F(Decoder, DamagedAttributeIsAbsentAndTheOthersCanBeRead) {
    for (const char* damage :
         {"dat:json:{\"a\":", "dat:json:5", "dat:json:", "dat:n:5x", "dat:n:", "dat:n:inf",
          "dat:n:-nan", "dat:n:0x1", "dat:b:maybe", "dat:q:x", "dat", "dat:x", ":s:x", "@b", "",
          "dat:json:{\"a\":\"\xFF\"}", "dat:json:{} x"}) {
        EXPECT_EQ(parse(std::string("@a\n") + damage + "\nid::1\n"), PPS_DECODER_PARSE_ERROR)
            << damage;
        EXPECT_STREQ(pps_decoder_name(&m_decoder), "@a") << damage;
        pps_decoder_push(&m_decoder, nullptr);
        EXPECT_EQ(pps_decoder_length(&m_decoder), 1) << damage;
        EXPECT_EQ(get("id"), "1") << damage;
    }
}

TEST_F(Decoder, NestingDeeperThan64IsAParseError) {
    const std::string fits = std::string(64, '[') + std::string(64, ']');
    const std::string tooDeep = std::string(65, '[') + std::string(65, ']');
    EXPECT_EQ(parse("@a\nx:json:" + fits + "\n"), PPS_DECODER_OK);
    EXPECT_EQ(parse("@a\nx:json:" + tooDeep + "\n"), PPS_DECODER_PARSE_ERROR);
    EXPECT_EQ(parse("@a\nx:json:" + std::string(100000, '[') + "\n"), PPS_DECODER_PARSE_ERROR);
}

TEST_F(Decoder, CleanupForgetsTheObject) {
    enter("+@a\nx::1\n");
    pps_decoder_cleanup(&m_decoder);
    EXPECT_EQ(pps_decoder_flags(&m_decoder), 0U);
    EXPECT_EQ(get("x"), "<absent>");
    EXPECT_EQ(pps_decoder_length(&m_decoder), 0);
    EXPECT_STREQ(pps_decoder_name(&m_decoder), "");
}

TEST_F(Decoder, EveryByteSurvivesARoundTripAsAnAttribute) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, "a");
    pps_encoder_add_string(&encoder, "x", bytes);
    pps_encoder_end_object(&encoder);
    enter(pps_encoder_buffer(&encoder));
    EXPECT_EQ(get("x"), bytes);
}

TEST_F(Decoder, ValidTextSurvivesARoundTripInsideJson) {
    const std::string text("\0\x01\n\r\t\"\\/\x7fé€😀", 18);
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, "a");
    pps_encoder_start_object(&encoder, "o");
    pps_encoder_add_string(&encoder, "x\n\"", text);
    pps_encoder_end_object(&encoder);
    pps_encoder_end_object(&encoder);
    enter(pps_encoder_buffer(&encoder));
    pps_decoder_push(&m_decoder, "o");
    EXPECT_EQ(get("x\n\""), text);
}
