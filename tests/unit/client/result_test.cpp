// Every code of the tables has a meaning and a next step.

#include "quilclient/result.hpp"

#include <gtest/gtest.h>

using namespace quilclient;

TEST(Codes, AreAllExplained) {
    for (const int code : {500, 10002, 10004, 10100, 10101, 10102, 10103, 10104, 10106, 10107,
                           10108, 10109, 10110, 200, 10003}) {
        bool isListed = false;
        for (const CodeInfo& info : knownCodes()) {
            isListed = isListed || info.code == code;
        }
        EXPECT_TRUE(isListed) << code;
    }
    for (int code = kObjectInTheWay; code <= kOk; ++code) {
        EXPECT_EQ(explain(code).code, code);
        EXPECT_NE(explain(code).meaning, explain(-99).meaning) << code;
    }
}

TEST(Codes, AreListedInAscendingOrderWithWordsForEach) {
    int last = -100;
    for (const CodeInfo& info : knownCodes()) {
        EXPECT_GT(info.code, last);
        EXPECT_FALSE(info.meaning.empty()) << info.code;
        EXPECT_FALSE(info.nextStep.empty()) << info.code;
        last = info.code;
    }
}

TEST(Codes, OutsideTheTablesAreThePushServersOwn) {
    EXPECT_EQ(explain(4711).code, 4711);
    EXPECT_EQ(explain(4711).origin, "push server");
    EXPECT_EQ(explain(-99).origin, "client library");
}

// The agent gives no code for it.
TEST(Codes, OfAChannelWithoutATokenNamesTheToolThatTellsWhy) {
    EXPECT_NE(explain(kEmptyToken).nextStep.find("quilctl trace LOG shows the reason"),
              std::string_view::npos);
}

TEST(Codes, SuccessHasNoWords) {
    EXPECT_TRUE(resultOf(kOk).ok());
    EXPECT_EQ(resultOf(kOk).words, "");
    EXPECT_FALSE(resultOf(500).ok());
}
