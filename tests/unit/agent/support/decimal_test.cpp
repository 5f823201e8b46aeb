// Numbers as peers write them.

#include "agent/support/decimal.hpp"

#include <gtest/gtest.h>

#include <climits>

TEST(Decimal, ReadsLeadingDigits) {
    EXPECT_EQ(leadingDecimal("200"), 200);
    EXPECT_EQ(leadingDecimal("10003&x=1"), 10003);
}

TEST(Decimal, NoDigitsIsZero) {
    EXPECT_EQ(leadingDecimal(""), 0);
    EXPECT_EQ(leadingDecimal("abc"), 0);
}

TEST(Decimal, SignsAndBlanksAreNoDigits) {
    EXPECT_EQ(leadingDecimal("-5"), 0);
    EXPECT_EQ(leadingDecimal("+5"), 0);
    EXPECT_EQ(leadingDecimal(" 5"), 0);
}

TEST(Decimal, OverflowClamps) {
    EXPECT_EQ(leadingDecimal("2147483646"), INT_MAX - 1);
    EXPECT_EQ(leadingDecimal("2147483647"), INT_MAX);
    EXPECT_EQ(leadingDecimal("2147483648"), INT_MAX);
    EXPECT_EQ(leadingDecimal("99999999999999999999999999"), INT_MAX);
    EXPECT_EQ(leadingDecimal("4294971697"), INT_MAX) << "4401 and 2 to the power of 32";
}

TEST(Decimal, LeadingBlanksCanBeSkipped) {
    EXPECT_EQ(leadingDecimalAfterBlanks(" \t 5 6"), 5);
    EXPECT_EQ(leadingDecimalAfterBlanks("   "), 0);
    EXPECT_EQ(leadingDecimalAfterBlanks(" -5"), 0);
}
