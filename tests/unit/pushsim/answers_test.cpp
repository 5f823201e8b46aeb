// Which answers differ from the healthy ones, and how many of them.

#include "pushsim/answers.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include <string>

namespace {

RegistrationRequest registration() {
    RegistrationRequest request;
    request.isRegistration = true;
    return request;
}

}  // namespace

TEST(Answers, HealthyFirstStepHoldsANewParameterEachTime) {
    Answers answers({});
    const Answer first = answers.decide(registration(), 1);
    EXPECT_EQ(first.body.rfind("param=", 0), 0U) << first.body;
    EXPECT_EQ(first.portHeader, PortHeader::None);
    EXPECT_NE(answers.decide(registration(), 1).body, first.body);
}

TEST(Answers, HealthySecondStepHoldsThePortOnlyForARegistration) {
    Answers answers({});
    EXPECT_EQ(answers.decide(registration(), 2).body, "rc=200");
    EXPECT_EQ(answers.decide(registration(), 2).portHeader, PortHeader::Assigned);
    EXPECT_EQ(answers.decide({}, 2).body, "rc=200");
    EXPECT_EQ(answers.decide({}, 2).portHeader, PortHeader::None);
}

TEST(Answers, TimesIsSpentOnlyByAnswersThatDiffer) {
    AnswerOptions options;
    options.returnCode = 10001;
    options.times = 1;
    Answers answers(options);
    EXPECT_EQ(answers.decide(registration(), 1).body.rfind("param=", 0), 0U);
    EXPECT_EQ(answers.decide({}, 2).body, "rc=200");
    EXPECT_EQ(answers.decide(registration(), 2).body, "rc=10001");
    EXPECT_EQ(answers.decide(registration(), 2).body, "rc=200");
}

TEST(Answers, StepLimitLeavesTheOtherStepAlone) {
    AnswerOptions options;
    options.status = 500;
    options.onlyStep = 2;
    Answers answers(options);
    EXPECT_EQ(answers.decide(registration(), 1).status, 200);
    EXPECT_EQ(answers.decide(registration(), 2).status, 500);
}

TEST(Answers, BigBodyHasTheBytesThatWereAskedFor) {
    for (const std::size_t bytes : {1, 6, 7, 11, 12, 13, 9000}) {
        AnswerOptions options;
        options.bodyBytes = bytes;
        Answers answers(options);
        const std::string body = answers.decide(registration(), 2).body;
        EXPECT_EQ(body.size(), std::max<std::size_t>(bytes, 6)) << body;
        EXPECT_EQ(returnCode(body), 200) << body;
    }
}
