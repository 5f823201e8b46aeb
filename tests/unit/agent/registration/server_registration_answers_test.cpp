// Every answer that a push data server can give, and the result code that follows from it.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>

#include "agent/registration/http.hpp"
#include "agent/registration/server_registration.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/unit/agent/registration/server_registration_fixture.hpp"

namespace {

constexpr int kMostAnswerBytes = 8191;

std::string xs(int count) {
    return std::string(static_cast<std::size_t>(count), 'x');
}

}  // namespace

TEST_F(ServerRegistration, OneStepWith200SetsResultCode200AndOpensNoPort) {
    const ReservedPort port;
    m_server.answer("rc=200", port.number());
    EXPECT_EQ(registerChannel(), 200);
    EXPECT_EQ(m_session->getPort().getPort(), -1);
    EXPECT_FALSE(Peer(port.number()).isConnected());
    EXPECT_FALSE(wasLogged(6, "OVRA registration is successful\n"));
}

TEST_F(ServerRegistration, OneStepCodesBecomeTheResultCode) {
    for (const int code : {1, 10003, 10100, 2147483647}) {
        EXPECT_EQ(registerInOneStep("rc=" + std::to_string(code)), code);
    }
}

TEST_F(ServerRegistration, OneStepWithCodeZeroSetsNothingAndOpensNothing) {
    EXPECT_EQ(registerInOneStep("rc=0"), 0);
    EXPECT_EQ(m_session->getPort().getPort(), -1);
}

TEST_F(ServerRegistration, TwoStepsWithCodeZeroSetNothingAndOpenNothing) {
    const ReservedPort port;
    m_server.answer("param=1");
    m_server.answer("rc=0", port.number());
    EXPECT_EQ(registerChannel(), 0);
    EXPECT_EQ(m_session->getPort().getPort(), -1);
    EXPECT_TRUE(
        linesOf("server_registration.cpp").ends_with("6 getReturnCode: Response Code [0]\n"))
        << recordedText();
}

TEST_F(ServerRegistration, RejectionInTwoStepsIsStoredAsItStands) {
    EXPECT_EQ(registerInTwoSteps("rc=10021"), 10021);
    EXPECT_EQ(m_session->getPort().getPort(), -1);
    EXPECT_TRUE(linesOf("server_registration.cpp")
                    .ends_with("6 getReturnCode: Response Code [10021]\n"
                               "5 OVRA server rejected registration. app id [app] ppgUrl [" +
                               m_server.url() + "] Details: response code[10021]\n"))
        << recordedText();
}

TEST_F(ServerRegistration, FirstAnswerWithNeitherParamNorCodeGets10110) {
    EXPECT_EQ(registerInOneStep("hello"), 10110);
    EXPECT_TRUE(linesOf("server_registration.cpp")
                    .ends_with("2 processServerRegister: appId[app] subcribe URL OVRA server "
                               "rejected registration. Details: response code [hello]\n"))
        << recordedText();
}

TEST_F(ServerRegistration, EmptyFirstAnswerGets10110) {
    EXPECT_EQ(registerInOneStep(""), 10110);
    EXPECT_TRUE(wasLogged(6, "Len of response [0]"));
    EXPECT_TRUE(wasLogged(6, "1: after processRequest: http_rc[0] response[]"));
}

TEST_F(ServerRegistration, FirstAnswerOfWhiteSpaceGets10110) {
    EXPECT_EQ(registerInOneStep(" \r\n\t"), 10110);
    EXPECT_TRUE(wasLogged(6, "Len of response [0]"));
}

TEST_F(ServerRegistration, SecondAnswerWithoutCodeGets10108) {
    EXPECT_EQ(registerInTwoSteps("param=2"), 10108);
    EXPECT_EQ(registerInTwoSteps(""), 10108);
}

TEST_F(ServerRegistration, SecondRequestThatFailsGets10108) {
    m_server.answer("param=1");
    m_server.answerStatus(500, "rc=200");
    EXPECT_EQ(registerChannel(), 10108);
    EXPECT_TRUE(wasLogged(6, "2: http_rc [10103] response: []")) << recordedText();
    EXPECT_FALSE(wasLogged(2,
                           "processServerRegister: Initial OVRA registration failed appId[app] "
                           "subcribe URL[" +
                               m_server.url() + "]"));
}

TEST_F(ServerRegistration, SecondAnswerWithTheCodeOfTheFirstOnlyGets10108) {
    // The text of the first answer is gone when the second fails.
    m_server.answer("param=1&rc=200");
    m_server.answerStatus(404, "");
    EXPECT_EQ(registerChannel(), 10108);
}

TEST_F(ServerRegistration, ParamGoesBeforeACodeInTheFirstAnswer) {
    m_server.answer("rc=7&param=1");
    m_server.answer("rc=8");
    EXPECT_EQ(registerChannel(), 8);
}

TEST_F(ServerRegistration, ParamCountsAnywhereInTheAnswer) {
    m_server.answer("<html>xparam=1");
    m_server.answer("rc=8");
    EXPECT_EQ(registerChannel(), 8);
}

TEST_F(ServerRegistration, ParamInCapitalsIsNone) {
    EXPECT_EQ(registerInOneStep("PARAM=1&rc=8"), 8);
}

TEST_F(ServerRegistration, WhiteSpaceAroundTheFirstAnswerIsNotPartOfTheSecondUrl) {
    m_server.answer("\r\n \tparam=abc&x=1 \n\n");
    m_server.answer("rc=8");
    EXPECT_EQ(registerChannel(), 8);
    const std::string asked = m_server.asked();
    EXPECT_TRUE(asked.ends_with("&model=0x87&param=abc&x=1\n")) << asked;
}

TEST_F(ServerRegistration, FirstAnswerThatMakesNoUrlGets10108) {
    m_server.answer("param=a b\nc");
    EXPECT_EQ(registerChannel(), 10108);
    EXPECT_TRUE(wasLogged(6, "2: http_rc [10103] response: []")) << recordedText();
}

TEST_F(ServerRegistration, EveryStatusBut200Gets10103) {
    for (const int status : {201, 204, 206, 302, 400, 404, 500, 503}) {
        m_server.answerStatus(status, "rc=5");
        EXPECT_EQ(registerChannel(), 10103) << status;
    }
}

TEST_F(ServerRegistration, FailedFirstRequestIsLogged) {
    m_server.answerStatus(404, "rc=5");
    EXPECT_EQ(registerChannel(), 10103);
    const std::string url =
        m_server.url() + "/mss/PD_subReg?serviceid=app&osversion=10.3&model=0x87";
    EXPECT_TRUE(linesOf("server_registration.cpp")
                    .ends_with("6 processRequest: rc [0] http_status [404]\n"
                               "5 HTTP Transport failure: rc [0] HTTP Status[404] url[" +
                               url +
                               "]\n"
                               "6 1: after processRequest: http_rc[10103] response[]\n"
                               "2 processServerRegister: Initial OVRA registration failed "
                               "appId[app] subcribe URL[" +
                               url + "]\n"))
        << recordedText();
}

TEST_F(ServerRegistration, TransportFailureGets10103WithStatusZero) {
    m_server.stop();
    EXPECT_EQ(registerChannel(), 10103);
    const std::string url =
        m_server.url() + "/mss/PD_subReg?serviceid=app&osversion=10.3&model=0x87";
    EXPECT_TRUE(wasLogged(6, "processRequest: rc [7] http_status [0]")) << recordedText();
    EXPECT_TRUE(wasLogged(5, "HTTP Transport failure: rc [7] HTTP Status[0] url[" + url + "]"));
}

TEST_F(ServerRegistration, FailedDeregistrationGets10103) {
    m_server.stop();
    EXPECT_EQ(deregisterChannel(), 10103);
    EXPECT_TRUE(wasLogged(
        5, "processServerDeregister: app_id[app] ppgUrl[" + m_server.url() + "] rc [-1]"));
}

TEST_F(ServerRegistration, UrlThatIsNotHttpGets10103) {
    m_root.write("/mss/PD_subReg", "rc=5");
    for (const std::string& url :
         {std::string("file://") + m_root.at(""), std::string("ftp://127.0.0.1"), std::string()}) {
        EXPECT_EQ(registerChannel(url), 10103) << url;
    }
    EXPECT_TRUE(wasLogged(6, "processRequest: rc [1] http_status [0]")) << recordedText();
}

TEST_F(ServerRegistration, SilentServerGets10103AfterTheTimeLimit) {
    httpSetTimeout(1);
    const RawServer silent(waitForClose);
    EXPECT_EQ(registerChannel(silent.url("")), 10103);
    EXPECT_TRUE(wasLogged(6, "processRequest: rc [28] http_status [0]")) << recordedText();
}

TEST_F(ServerRegistration, FirstFailureRecordedOnAMessageWins) {
    QuilServerRegMessage message("app", "7", "@ipc.1", m_server.url());
    message.setErrorCode(77);
    m_server.answer("rc=5");
    processServerRegister(message);
    EXPECT_EQ(message.getErrorCode(), 77);
}

TEST_F(ServerRegistration, AnswerIsCutAt8191Bytes) {
    const std::string padding = xs(kMostAnswerBytes - 4);
    EXPECT_EQ(registerInOneStep(padding + "rc=5"), 5);
    EXPECT_TRUE(wasLogged(6, "Len of response [8191]"));
    EXPECT_EQ(registerInOneStep(padding + "rc=56"), 5);
    EXPECT_EQ(registerInOneStep(padding + "xrc=5"), 0);
    EXPECT_EQ(registerInOneStep(padding + "xxrc=5"), 10110);
    EXPECT_EQ(countRecorded(6, "Len of response [8191]"), 4);
}

TEST_F(ServerRegistration, ParamBehindTheCutIsNotSeen) {
    EXPECT_EQ(registerInOneStep("rc=5" + xs(kMostAnswerBytes - 9) + "param="), 5);
}

TEST_F(ServerRegistration, LongestAnswerGoesBehindTheUrlAsAWhole) {
    const std::string answer = "rc=5" + xs(kMostAnswerBytes - 10) + "param=";
    std::string second;
    {
        // The server of the other tests refuses a target of this length.
        const RawServer server([&](int connection) {
            second = readRequest(connection);
            const bool isFirst = second.find("param=") == std::string::npos;
            sendBytes(connection, "HTTP/1.0 200 OK\r\n\r\n" + (isFirst ? answer : "rc=6"));
        });
        EXPECT_EQ(registerChannel(server.url("")), 6);
    }
    EXPECT_NE(second.find("&model=0x87&" + answer + " HTTP/1.1\r\n"), std::string::npos) << second;
}

TEST_F(ServerRegistration, WhiteSpaceIsStrippedBeforeTheCut) {
    EXPECT_EQ(registerInOneStep(std::string(9000, ' ') + "rc=5" + std::string(9000, '\n')), 5);
    EXPECT_TRUE(wasLogged(6, "Len of response [4]"));
}

TEST_F(ServerRegistration, AnswerEndsAtItsFirstZeroByte) {
    EXPECT_EQ(registerInOneStep(std::string("abc\0rc=5", 8)), 10110);
    EXPECT_TRUE(wasLogged(6, "Len of response [8]"));
    EXPECT_EQ(registerInOneStep(std::string("rc=5\0006", 6)), 5);
}

TEST_F(ServerRegistration, CodeAtTheEndOfALongerWordCounts) {
    EXPECT_EQ(registerInOneStep("src=5"), 5);
}

TEST_F(ServerRegistration, FirstOfSeveralCodesCounts) {
    EXPECT_EQ(registerInOneStep("rc=5&rc=6"), 5);
    EXPECT_EQ(registerInOneStep("rc=&rc=6"), 0);
}

TEST_F(ServerRegistration, CodeInCapitalsIsNone) {
    EXPECT_EQ(registerInOneStep("RC=5"), 10110);
    EXPECT_EQ(registerInOneStep("Rc=5"), 10110);
}

TEST_F(ServerRegistration, CodeIsReadAsLeadingDigitsOnly) {
    EXPECT_EQ(registerInOneStep("rc=5x6"), 5);
    EXPECT_EQ(registerInOneStep("rc=0012&x"), 12);
    for (const char* none : {"rc=", "rc=-5", "rc=+5", "rc= 5", "rc=x5"}) {
        EXPECT_EQ(registerInOneStep(none), 0) << none;
    }
}

TEST_F(ServerRegistration, CodeThatIsTooLargeIsTheLargest) {
    EXPECT_EQ(registerInOneStep("rc=99999999999999999999"), 2147483647);
}

TEST_F(ServerRegistration, CodeIsLoggedAsTextAndNumber) {
    EXPECT_EQ(registerInOneStep("x rc=12 & more"), 12);
    EXPECT_TRUE(linesOf("server_registration.cpp")
                    .ends_with("6 RC_VALUE [12 & more]\n6 getReturnCode: Response Code [12]\n"))
        << recordedText();
}

TEST_F(ServerRegistration, ProcessRequestLeavesTextAndPortAloneWhenItFails) {
    m_server.answer("rc=5", 4401, {}, {}, 500);
    std::string text = "before";
    int port = 17;
    EXPECT_EQ(processRequest(m_server.url() + "/x", &text, &port), 10103);
    EXPECT_EQ(text, "before");
    EXPECT_EQ(port, 17);
}

TEST_F(ServerRegistration, ProcessRequestKeepsThePortWithoutAHeader) {
    m_server.answer("rc=5");
    std::string text = "before";
    int port = 17;
    EXPECT_EQ(processRequest(m_server.url() + "/x", &text, &port), 0);
    EXPECT_EQ(text, "rc=5");
    EXPECT_EQ(port, 17);
}

TEST_F(ServerRegistration, ProcessRequestStoresZeroForAHeaderWithoutDigits) {
    m_server.answer("rc=5", {}, {}, {{"vex-device-ovra-port", "none"}});
    std::string text;
    int port = 17;
    EXPECT_EQ(processRequest(m_server.url() + "/x", &text, &port), 0);
    EXPECT_EQ(port, 0);
    EXPECT_TRUE(wasLogged(6, "Port response none\n"));
}

TEST_F(ServerRegistration, GetReturnCodeSetsTheCodeThatItIsGiven) {
    QuilServerRegMessage message("app", "7", "@ipc.1", "u");
    EXPECT_EQ(getReturnCode(message, "nothing", 4711), -1);
    EXPECT_EQ(message.getErrorCode(), 4711);
    EXPECT_EQ(getReturnCode(message, "rc=200", 4712), 200);
    EXPECT_EQ(message.getErrorCode(), 4711);
}

TEST_F(ServerRegistration, SubscribeTakesNoPortWhenNoneIsAskedFor) {
    m_server.answer("param=1");
    m_server.answer("rc=200", 4401);
    QuilServerRegMessage message("app", "7", "@ipc.1", m_server.url());
    EXPECT_EQ(processServerSubscribe(message, nullptr), 200);
    EXPECT_EQ(message.getErrorCode(), 0);
}
