// Reading a device's request, and telling second steps from first ones.

#include "pushsim/registration_request.hpp"

#include <gtest/gtest.h>

#include <string>

#include "pushsim/exchanges.hpp"

TEST(RegistrationRequest, RegistrationGivesItsThreeValues) {
    const auto request =
        parseRegistrationRequest("/mss/PD_subReg?serviceid=com.a&osversion=10.1&model=0x8d");
    ASSERT_TRUE(request);
    EXPECT_TRUE(request->isRegistration);
    EXPECT_EQ(request->application, "com.a");
    EXPECT_EQ(request->osVersion, "10.1");
    EXPECT_EQ(request->model, "0x8d");
    EXPECT_FALSE(request->hasParameter);
}

TEST(RegistrationRequest, PrefixAndDoubleSlashAreTolerated) {
    EXPECT_TRUE(parseRegistrationRequest("/a/b//mss/PD_subReg?serviceid=x"));
    EXPECT_TRUE(parseRegistrationRequest("http://127.0.0.1:1//mss/PD_subDereg?serviceid=x"));
}

TEST(RegistrationRequest, NothingIsDecoded) {
    const auto request =
        parseRegistrationRequest("/mss/PD_subReg?serviceid=a b%41&c=d&osversion=1+ 0&model=M&M#");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->application, "a b%41&c=d");
    EXPECT_EQ(request->osVersion, "1+ 0");
    EXPECT_EQ(request->model, "M&M#");
}

TEST(RegistrationRequest, ParameterBelongsToNoValue) {
    const auto registration =
        parseRegistrationRequest("/mss/PD_subReg?serviceid=a&osversion=1&model=m&param=abc&x=1");
    ASSERT_TRUE(registration);
    EXPECT_TRUE(registration->hasParameter);
    EXPECT_EQ(registration->model, "m");
    const auto deregistration = parseRegistrationRequest("/mss/PD_subDereg?serviceid=a&param=");
    ASSERT_TRUE(deregistration);
    EXPECT_FALSE(deregistration->isRegistration);
    EXPECT_TRUE(deregistration->hasParameter);
    EXPECT_EQ(deregistration->application, "a");
}

TEST(RegistrationRequest, OtherTargetsAreNone) {
    EXPECT_FALSE(parseRegistrationRequest("/"));
    EXPECT_FALSE(parseRegistrationRequest("/mss/PD_subReg?service=a"));
    EXPECT_FALSE(parseRegistrationRequest("/mss/pd_subreg?serviceid=a"));
    EXPECT_FALSE(parseRegistrationRequest(""));
}

TEST(ReturnCode, IsTheDigitsBehindTheFirstName) {
    EXPECT_EQ(returnCode("rc=200"), 200);
    EXPECT_EQ(returnCode("src=5&rc=6"), 5);
    EXPECT_EQ(returnCode("rc=10003&x"), 10003);
    EXPECT_EQ(returnCode("rc=x"), 0);
    EXPECT_EQ(returnCode("param=1"), std::nullopt);
    EXPECT_EQ(returnCode("rc=99999999999999"), 999999999);
}

TEST(Exchanges, SecondStepRepeatsTheStrippedFirstAnswer) {
    Exchanges exchanges;
    std::string first;
    exchanges.remember("/t", " \nx=1&param=2\r\n");
    EXPECT_FALSE(exchanges.take("/t&x=1", &first));
    EXPECT_TRUE(exchanges.take("/t&x=1&param=2", &first));
    EXPECT_EQ(first, "/t");
    EXPECT_FALSE(exchanges.take("/t&x=1&param=2", &first)) << "each answer is used once";
}

TEST(Exchanges, OfALongAnswerTheFirst8191BytesAreRepeated) {
    Exchanges exchanges;
    std::string first;
    exchanges.remember("/t", std::string(9000, 'p'));
    EXPECT_FALSE(exchanges.take("/t&" + std::string(9000, 'p'), &first));
    EXPECT_TRUE(exchanges.take("/t&" + std::string(8191, 'p'), &first));
}

TEST(Exchanges, DevicesThatNeverComeBackAreForgotten) {
    Exchanges exchanges;
    std::string first;
    exchanges.remember("/0", "p");
    for (int i = 1; i <= 1024; ++i) {
        exchanges.remember("/" + std::to_string(i), "p");
    }
    EXPECT_FALSE(exchanges.take("/0&p", &first));
    EXPECT_TRUE(exchanges.take("/1024&p", &first));
}
