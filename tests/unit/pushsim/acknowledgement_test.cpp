// Which bytes are the acknowledgement, and what is said about those that are not.

#include "pushsim/acknowledgement.hpp"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/pushsim/support.hpp"

namespace {

std::string withDate(const std::string& date) {
    return "HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:" + date + "\n\n\r";
}

std::string faultOf(const std::string& bytes) {
    return checkAcknowledgement(bytes).fault;
}

}  // namespace

TEST(Acknowledgement, GoldenFileIsValid) {
    const std::string bytes = golden("acknowledgement.txt");
    ASSERT_EQ(bytes.size(), 72U);
    const auto check = checkAcknowledgement(bytes);
    EXPECT_EQ(check.fault, "");
    EXPECT_EQ(check.date, "Sat Nov 21 02:24:44 2026");
}

TEST(Acknowledgement, EveryChangedByteIsFound) {
    const std::string good = golden("acknowledgement.txt");
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = '#';
        EXPECT_NE(faultOf(bad), "") << "byte " << i;
    }
}

TEST(Acknowledgement, EveryShorterTextIsFound) {
    const std::string good = golden("acknowledgement.txt");
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_NE(faultOf(good.substr(0, length)), "") << length << " bytes";
    }
}

TEST(Acknowledgement, BytesBehindItAreFound) {
    EXPECT_EQ(faultOf(golden("acknowledgement.txt") + "x"), "1 bytes too many, from byte 72 on");
}

TEST(Acknowledgement, FaultNamesTheFirstWrongByte) {
    std::string text = golden("acknowledgement.txt");
    text.replace(15, 2, "\r\n");
    EXPECT_EQ(faultOf(text), "byte 15 is \"\\r\" and should be \"\\n\"");
    EXPECT_EQ(faultOf("HTTP/1.0 200 O"),
              "ends at byte 14, where \"K\\n\\r"
              "X-Wap-Push-Status:400\\n\\r"
              "Date:\" should follow");
}

TEST(Acknowledgement, DayBelowTenIsPaddedWithABlank) {
    EXPECT_EQ(faultOf(withDate("Sun Nov  1 00:00:00 2026")), "");
    EXPECT_NE(faultOf(withDate("Sun Nov 01 00:00:00 2026")), "");
}

TEST(Acknowledgement, DateThatDoesNotExistIsFound) {
    EXPECT_NE(faultOf(withDate("Mon Feb 30 10:00:00 2026")), "");
    EXPECT_NE(faultOf(withDate("Fri Nov 21 02:24:44 2026")), "") << "it is a Saturday";
    EXPECT_NE(faultOf(withDate("Sat Nov 21 24:24:44 2026")), "");
    EXPECT_NE(faultOf(withDate("Sat Nox 21 02:24:44 2026")), "");
}

TEST(Acknowledgement, BlankBehindDateIsFound) {
    EXPECT_NE(faultOf("HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate: Sat Nov 21 02:24:44 2026"
                      "\n\n\r"),
              "");
}

TEST(Acknowledgement, DateOfTheLocalClockIsNoDayAway) {
    const std::time_t now = std::time(nullptr);
    char text[32] = {};
    ctime_r(&now, text);
    const auto check = checkAcknowledgement(withDate(std::string(text, 24)));
    ASSERT_EQ(check.fault, "");
    EXPECT_LT(daysFrom(check.time, now), 0.001);
    EXPECT_NEAR(daysFrom(check.time, now + 10 * 86400), 10.0, 0.1);
}
