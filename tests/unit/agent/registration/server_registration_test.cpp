// Registration and deregistration with a real HTTP server in the part of the push data server: how
// a channel becomes registered, what is asked and logged on the way, and what the port header does.

#include "agent/registration/server_registration.hpp"

#include <gtest/gtest.h>

#include <string>

#include "agent/registration/http.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "tests/support/agent/server_fixture.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/unit/agent/registration/server_registration_fixture.hpp"

namespace {

const std::string kRegister = "/mss/PD_subReg?serviceid=app&osversion=10.3&model=0x87";
const std::string kDeregister = "/mss/PD_subDereg?serviceid=app";

}  // namespace

TEST_F(ServerRegistration, TwoStepsRegisterAndOpenThePort) {
    const ReservedPort port;
    m_server.answer("param=abc&x=1");
    m_server.answer("rc=200", port.number());
    EXPECT_EQ(registerChannel(), 0);
    EXPECT_EQ(m_server.asked(), kRegister + "\n" + kRegister + "&param=abc&x=1\n");
    EXPECT_EQ(m_session->getPort().getPort(), port.number());
    EXPECT_GT(m_session->getPort().getSocket(), 0);
    EXPECT_TRUE(Peer(port.number()).isConnected());
}

TEST_F(ServerRegistration, AlreadyRegisteredCountsAsSuccessAndOpensThePort) {
    const ReservedPort port;
    m_server.answer("param=abc");
    m_server.answer("rc=10003", port.number());
    EXPECT_EQ(registerChannel(), 0);
    EXPECT_EQ(m_session->getPort().getPort(), port.number());
    EXPECT_TRUE(Peer(port.number()).isConnected());
}

TEST_F(ServerRegistration, SuccessIsLoggedStepByStep) {
    const ReservedPort port;
    m_server.answer(" param=abc\r\n");
    m_server.answer("x=1&rc=200&y=2", port.number());
    ASSERT_EQ(registerChannel(), 0);
    const std::string first = m_server.url() + kRegister;
    const std::string second = first + "&param=abc";
    const std::string number = std::to_string(port.number());
    EXPECT_EQ(linesOf("server_registration.cpp"),
              "5 processServerRegister: appid [app] port [-1]\n\n"
              "6 calling create url....\n"
              "6 server_registration: url [" +
                  first +
                  "]\n"
                  "6 processServerSubscribe 1: url[" +
                  first +
                  "] ret_val[0]\n"
                  "6 processing the response from the first subscribe...\n"
                  "6 processRequest: url[" +
                  first +
                  "]...1\n"
                  "6 processRequest: rc [0] http_status [200]\n"
                  "6 Len of response [9]\n"
                  "6 1: after processRequest: http_rc[0] response[param=abc]\n"
                  "6 processServerSubscribe 2: url[" +
                  second +
                  "]\n"
                  "6 processRequest: url[" +
                  second +
                  "]...1\n"
                  "6 processRequest: rc [0] http_status [200]\n"
                  "6 Len of response [14]\n"
                  "6 Port response " +
                  number +
                  "\n\n"
                  "6 2: http_rc [0] response: [x=1&rc=200&y=2]\n"
                  "6 RC_VALUE [200&y=2]\n"
                  "6 getReturnCode: Response Code [200]\n"
                  "6 OVRA registration is successful\n\n"
                  "6 processServerRegister: app id [app] port [-1]\n"
                  "6 processServerRegister: Opening port " +
                  number + "\n\n");
}

TEST_F(ServerRegistration, UrlIsJoinedAsItsPartsStand) {
    m_server.answer("rc=1");
    QuilServerRegMessage message("a%20p&p", "7", "@ipc.1", m_server.url() + "/base/");
    addSession("a%20p&p", "@ipc.1");
    processServerRegister(message);
    EXPECT_EQ(m_server.asked(),
              "/base//mss/PD_subReg?serviceid=a%20p&p&osversion=10.3&model=0x87\n");
}

TEST_F(ServerRegistration, CreateUrlEscapesNothing) {
    QuilServerRegMessage message("a b/\xC3\xA4", "7", "@ipc.1", "no scheme/");
    std::string url = "something else";
    createUrl(message, &url);
    EXPECT_EQ(url, "no scheme//mss/PD_subReg?serviceid=a b/\xC3\xA4&osversion=10.3&model=0x87");
    message.setRegister(false);
    createUrl(message, &url);
    EXPECT_EQ(url, "no scheme//mss/PD_subDereg?serviceid=a b/\xC3\xA4");
    EXPECT_TRUE(wasLogged(6, "server_registration: url [" + url + "]")) << recordedText();
}

TEST_F(ServerRegistration, MissingDeviceValuesLeaveTheirPlacesEmpty) {
    std::filesystem::remove(m_root.at("/pps/services/deviceproperties"));
    std::filesystem::remove(m_root.at("/pps/system/nvram/deviceinfo"));
    QuilServerRegMessage message("app", "7", "@ipc.1", "u");
    std::string url;
    createUrl(message, &url);
    EXPECT_EQ(url, "u/mss/PD_subReg?serviceid=app&osversion=&model=");
}

TEST_F(ServerRegistration, PrepareGivesTheUrlOfAKnownSession) {
    QuilServerRegMessage message("app", "7", "@ipc.1", "u");
    message.setRegister(false);
    m_session->getPort().setPort(4401);
    std::string url;
    EXPECT_EQ(prepareServerRequest(message, &url), 0);
    EXPECT_EQ(url, "u" + kDeregister);
    EXPECT_TRUE(wasLogged(5, "processServerRegister: appid [app] port [4401]\n")) << recordedText();
}

TEST_F(ServerRegistration, UnknownSessionGets10100WithoutARequest) {
    QuilServerRegMessage message("stranger", "7", "@ipc.1", m_server.url());
    processServerRegister(message);
    EXPECT_EQ(message.getErrorCode(), 10100);
    EXPECT_EQ(m_server.asked(), "");
    EXPECT_EQ(linesOf("server_registration.cpp"),
              "3 processServerRegister: provider App Id[stranger] not found\n"
              "6 processServerSubscribe 1: url[] ret_val[-1]\n"
              "6 return now!!!\n");
}

TEST_F(ServerRegistration, SessionThatGoesDuringTheExchangeGets10100) {
    const ReservedPort port;
    m_server.answer("param=1");
    m_server.answer("rc=200", port.number(),
                    [] { QuilSessionManager::getInstance()->deleteSession("app"); });
    EXPECT_EQ(registerChannel(), 10100);
    EXPECT_TRUE(wasLogged(6, "Session not found for app id [app]")) << recordedText();
    EXPECT_FALSE(Peer(port.number()).isConnected());
}

TEST_F(ServerRegistration, SecondRegistrationOnAnotherPortClosesTheFirst) {
    const ReservedPort first;
    const ReservedPort second;
    registerOnPort(first.number());
    ASSERT_TRUE(Peer(first.number()).isConnected());
    clearRecordedLines();
    registerOnPort(second.number());
    EXPECT_EQ(m_session->getPort().getPort(), second.number());
    EXPECT_TRUE(Peer(second.number()).isConnected());
    EXPECT_FALSE(Peer(first.number()).isConnected());
    EXPECT_TRUE(wasLogged(
        6, "processServerRegister: app id [app] port [" + std::to_string(first.number()) + "]"))
        << recordedText();
}

TEST_F(ServerRegistration, SecondRegistrationOnTheSamePortTouchesNothing) {
    const ReservedPort port;
    registerOnPort(port.number());
    const int socket = m_session->getPort().getSocket();
    const Peer waiting(port.number());
    registerOnPort(port.number());
    EXPECT_EQ(m_session->getPort().getSocket(), socket);
    EXPECT_TRUE(waiting.isOpen()) << "the listening socket was closed in between";
    EXPECT_FALSE(
        wasLogged(6, "stopListenOnPort: close fd " + std::to_string(socket) + " returned 0"));
}

TEST_F(ServerRegistration, PortThatCannotBeOpenedStillCountsAsRegistered) {
    const ReservedPort port;
    port.listenOnIt();
    EXPECT_EQ(registerOnPort(port.number()), 0);
    EXPECT_EQ(m_session->getPort().getPort(), port.number());
    EXPECT_EQ(m_session->getPort().getSocket(), -1);
    EXPECT_TRUE(wasLogged(2, "Error opening port " + std::to_string(port.number())));
}

TEST_F(ServerRegistration, PortAbove65535IsNeverOpenedUnderItsLowBits) {
    const ReservedPort port;
    EXPECT_EQ(registerOnPort(65536 + port.number()), 0);
    EXPECT_EQ(m_session->getPort().getSocket(), -1);
    EXPECT_FALSE(Peer(port.number()).isConnected());
}

TEST_F(ServerRegistration, PortHeaderWithoutAUsablePortGets10107) {
    for (const char* value : {"0", "-5", "+5", "abc", "", "x4401", "-4401"}) {
        EXPECT_EQ(registerWithPortHeader(value), 10107) << value;
        EXPECT_EQ(m_session->getPort().getPort(), -1) << value;
        EXPECT_EQ(m_session->getPort().getSocket(), -1) << value;
    }
    EXPECT_EQ(countRecorded(3, "OVRA registration failed. Invalid port received"), 7);
}

TEST_F(ServerRegistration, MissingPortHeaderGets10107) {
    m_server.answer("param=1");
    m_server.answer("rc=200");
    EXPECT_EQ(registerChannel(), 10107);
    EXPECT_TRUE(linesOf("server_registration.cpp")
                    .ends_with("6 OVRA registration is successful\n\n"
                               "3 OVRA registration failed. Invalid port received\n"))
        << recordedText();
}

TEST_F(ServerRegistration, PortEndsAtTheFirstNonDigit) {
    const ReservedPort port;
    EXPECT_EQ(registerWithPortHeader("\t " + std::to_string(port.number()) + ";x=9"), 0);
    EXPECT_EQ(m_session->getPort().getPort(), port.number());
}

TEST_F(ServerRegistration, PortHeaderIsFoundInAnyCase) {
    const ReservedPort port;
    m_server.answer("param=1");
    m_server.answer("rc=200", {}, {}, {{"VEX-Device-OVRA-Port", std::to_string(port.number())}});
    EXPECT_EQ(registerChannel(), 0);
    EXPECT_EQ(m_session->getPort().getPort(), port.number());
}

TEST_F(ServerRegistration, PortOfTheFirstAnswerIsNotTaken) {
    const ReservedPort port;
    m_server.answer("param=1", port.number());
    m_server.answer("rc=200");
    EXPECT_EQ(registerChannel(), 10107);
    EXPECT_FALSE(Peer(port.number()).isConnected());
}

TEST_F(ServerRegistration, DeregistrationAsksForItsOwnUrlInTwoSteps) {
    m_server.answer("param=abc");
    m_server.answer("rc=200", 4401);
    EXPECT_EQ(deregisterChannel(), 0);
    EXPECT_EQ(m_server.asked(), kDeregister + "\n" + kDeregister + "&param=abc\n");
    EXPECT_EQ(m_session->getPort().getPort(), -1);
    EXPECT_FALSE(wasLogged(6, "Port response 4401\n"));
    EXPECT_TRUE(wasLogged(
        5, "processServerDeregister: app_id[app] ppgUrl[" + m_server.url() + "] rc [200]"))
        << recordedText();
}

TEST_F(ServerRegistration, DeregistrationLeavesTheListeningPortAlone) {
    const ReservedPort port;
    registerOnPort(port.number());
    m_server.answer("param=abc");
    m_server.answer("rc=200");
    EXPECT_EQ(deregisterChannel(), 0);
    EXPECT_EQ(m_session->getPort().getPort(), port.number());
    EXPECT_TRUE(Peer(port.number()).isConnected());
}

TEST_F(ServerRegistration, DeregistrationStoresEveryCodeButSuccess) {
    for (const int code : {10003, 10004, 1, 404, 2147483647}) {
        m_server.answer("param=abc");
        m_server.answer("rc=" + std::to_string(code));
        EXPECT_EQ(deregisterChannel(), code);
    }
}

TEST_F(ServerRegistration, DeregistrationInTwoStepsWithCodeZeroSetsNothing) {
    m_server.answer("param=abc");
    m_server.answer("rc=0");
    EXPECT_EQ(deregisterChannel(), 0);
    EXPECT_TRUE(
        wasLogged(5, "processServerDeregister: app_id[app] ppgUrl[" + m_server.url() + "] rc [0]"));
}

TEST_F(ServerRegistration, DeregistrationInOneStepReports200AndAddsNothing) {
    m_server.answer("rc=200");
    EXPECT_EQ(deregisterChannel(), 200);
    EXPECT_TRUE(linesOf("server_registration.cpp")
                    .ends_with("5 processServerDeregister: app_id[app] ppgUrl[" + m_server.url() +
                               "] rc [-1]\n"))
        << recordedText();
}

TEST_F(ServerRegistration, DeregistrationOfAnUnknownSessionGets10100) {
    QuilServerRegMessage message("stranger", "7", "@ipc.1", m_server.url());
    message.setRegister(false);
    processServerDeregister(message);
    EXPECT_EQ(message.getErrorCode(), 10100);
    EXPECT_TRUE(wasLogged(3, "processServerRegister: provider App Id[stranger] not found"));
    EXPECT_TRUE(wasLogged(
        5, "processServerDeregister: app_id[stranger] ppgUrl[" + m_server.url() + "] rc [-1]"));
}

TEST_F(ServerRegistration, RegistrationLeavesNoDescriptorButTheListener) {
    m_server.answer("param=1");
    m_server.answer("rc=5");
    registerChannel();
    m_server.stop();
    const int before = lowestFreeDescriptor();
    registerChannel();
    EXPECT_EQ(lowestFreeDescriptor(), before);
}

// What stands in front of the zero byte would be another application's URL.
TEST_F(ServerRegistration, ZeroByteInIdOrUrlIsAnUnreachableServer) {
    const std::string zero(1, '\0');
    for (const bool isInId : {true, false}) {
        const std::string appId = isInId ? "app" + zero + "x" : "app";
        addSession(appId, "@ipc.1");
        QuilServerRegMessage message(appId, "7", "@ipc.1",
                                     isInId ? m_server.url() : m_server.url() + zero);
        processServerRegister(message);
        EXPECT_EQ(message.getErrorCode(), 10103);
    }
    EXPECT_EQ(m_server.asked(), "");
}
