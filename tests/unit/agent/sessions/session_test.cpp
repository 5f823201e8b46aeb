// The session record: its fields, its port, and one session's part of the saved object.

#include "agent/sessions/session.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <type_traits>

#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/scarce_memory.hpp"

namespace {

std::string number(int value) {
    return std::to_string(value);
}

class Session : public SessionsTest {
  protected:
    // Makes the session listen on a port of its own.
    int listen() {
        m_session.getPort().setPort(freePort());
        m_session.listenOnPort();
        return m_session.getPort().getPort();
    }

    QuilSession m_session{"app", "@ipc.1"};
};

// A saved session's text, and the decoder positioned on it.
class SavedSession : public SessionsTest {
  protected:
    void decode(const std::string& element) {
        pps_decoder_initialize(&m_decoder, ("@quilagent\ns:json:" + element + "\n").c_str());
        pps_decoder_push(&m_decoder, nullptr);
        ASSERT_EQ(pps_decoder_push(&m_decoder, "s"), PPS_DECODER_OK) << element;
    }

    pps_decoder_t m_decoder;
};

}  // namespace

TEST(SessionRecord, ObjectsAreRootsExceptPortWhichIsNamed) {
    EXPECT_TRUE((std::is_base_of_v<QuilBaseObject, QuilPort>));
    EXPECT_FALSE((std::is_base_of_v<QuilBaseObject, QuilSession>));
    EXPECT_FALSE((std::is_base_of_v<QuilBaseObject, QuilPushSocket>));
    EXPECT_FALSE((std::is_base_of_v<QuilBaseObject, QuilBaseState>));
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilSession>);
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilPort>);
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilPushSocket>);
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilBaseObject>);
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilBaseState>);
}

TEST(SessionRecord, NewPortHasNumberAndSocket0AndNoName) {
    const QuilPort port;
    EXPECT_EQ(port.getPort(), 0);
    EXPECT_EQ(port.getSocket(), 0);
    EXPECT_EQ(port.getName(), "");
    EXPECT_FALSE(port.isWaitingForClient());
}

TEST_F(Session, NewOneIsIdleWithoutPortAndTexts) {
    clearRecordedLines();
    QuilSession session("app.x", "@ipc.7");
    EXPECT_EQ(recordedText(), "");  // no transition, nothing that listens
    EXPECT_EQ(session.getProviderAppId(), "app.x");
    EXPECT_EQ(session.getPort().getName(), "app.x");
    EXPECT_EQ(session.getClientObjectId(), "@ipc.7");
    EXPECT_EQ(session.getPpgUrl(), "");
    EXPECT_EQ(session.getLaunchString(), "");
    EXPECT_EQ(session.getToken(), "");
    EXPECT_EQ(session.getPort().getPort(), -1);
    EXPECT_EQ(session.getPort().getSocket(), -1);
    EXPECT_EQ(stateOf(session), STATE_IDLE);
}

TEST_F(Session, OneMadeFromAnAppIdAloneHasNoStateAndNoClient) {
    QuilSession session("app.x");
    EXPECT_EQ(session.getProviderAppId(), "app.x");
    EXPECT_EQ(session.getClientObjectId(), "");
    EXPECT_EQ(session.getPort().getPort(), -1);
    EXPECT_EQ(session.getPort().getSocket(), -1);
    EXPECT_EQ(stateOf(session), -1);
}

TEST_F(Session, KeepsWhatIsSet) {
    m_session.setClientObjectId("@ipc.2");
    m_session.setPpgUrl("http://ppg");
    m_session.setLaunchString("launch me");
    m_session.setToken("2FFFFFFF");
    EXPECT_EQ(m_session.getClientObjectId(), "@ipc.2");
    EXPECT_EQ(m_session.getPpgUrl(), "http://ppg");
    EXPECT_EQ(m_session.getLaunchString(), "launch me");
    EXPECT_EQ(m_session.getToken(), "2FFFFFFF");
}

TEST_F(Session, ClientIdLetsTheLoopWatchThePortAgain) {
    m_session.getPort().setWaitingForClient(true);
    m_session.setClientObjectId("@ipc.2");
    EXPECT_FALSE(m_session.getPort().isWaitingForClient());
}

TEST_F(Session, EmptyClientIdLeavesThePortUnwatched) {
    m_session.getPort().setWaitingForClient(true);
    m_session.setClientObjectId("");
    EXPECT_TRUE(m_session.getPort().isWaitingForClient());
}

TEST_F(Session, PredicatesFollowTheStateType) {
    for (int type = 0; type <= 6; ++type) {
        putIntoState(m_session, type);
        EXPECT_EQ(m_session.isCreated(), type == 1) << "state type " << type;
        EXPECT_EQ(m_session.isDeleted(), type == 2) << "state type " << type;
        EXPECT_EQ(m_session.isRegistered(), type == 3 || type == 5 || type == 6)
            << "state type " << type;
        EXPECT_EQ(m_session.isTerminated(), type == 5) << "state type " << type;
        EXPECT_EQ(m_session.isSimChanged(), type == 6) << "state type " << type;
    }
}

TEST_F(Session, PredicatesAreFalseWithoutAState) {
    m_session.setState(nullptr);
    EXPECT_FALSE(m_session.isCreated());
    EXPECT_FALSE(m_session.isDeleted());
    EXPECT_FALSE(m_session.isRegistered());
    EXPECT_FALSE(m_session.isTerminated());
    EXPECT_FALSE(m_session.isSimChanged());
}

TEST_F(Session, OnlyTheSimChangePredicateLogs) {
    putIntoState(m_session, STATE_TERMINATE);
    clearRecordedLines();
    m_session.isCreated();
    m_session.isDeleted();
    m_session.isRegistered();
    m_session.isTerminated();
    m_session.isSimChanged();
    EXPECT_EQ(recordedText(), "6 QuilSession::isSimChanged: state type [5]\n");
}

TEST_F(Session, HasAPortFromNumber1On) {
    for (const int port : {-1, 0, 1, 65535}) {
        m_session.getPort().setPort(port);
        EXPECT_EQ(m_session.hasPort(), port > 0) << port;
    }
    m_session.getPort().setPort(-1);
}

TEST_F(Session, ListensOnItsPort) {
    const int port = freePort();
    m_session.getPort().setPort(port);
    clearRecordedLines();
    m_session.listenOnPort();
    const int socket = m_session.getPort().getSocket();
    EXPECT_GT(socket, 0);
    EXPECT_TRUE(isListening(port));
    EXPECT_TRUE(
        wasLogged(6, "QuilSession::listenOnPort: before: port[" + number(port) + "] fd[-1]"))
        << recordedText();
    EXPECT_TRUE(wasLogged(6, "QuilSession::listenOnPort: after: port {" + number(port) + "] fd[" +
                                 number(socket) + "]"))
        << recordedText();
}

TEST_F(Session, ListensOnThePortNumberItself) {
    const int port = listen();
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(
        getsockname(m_session.getPort().getSocket(), reinterpret_cast<sockaddr*>(&address), &size),
        0);
    EXPECT_EQ(ntohs(address.sin_port), port);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(Session, DoesNotListenWithoutAPort) {
    for (const int port : {0, -1, -70000}) {
        m_session.getPort().setPort(port);
        clearRecordedLines();
        m_session.listenOnPort();
        EXPECT_EQ(m_session.getPort().getSocket(), -1);
        EXPECT_EQ(recordedText(),
                  "6 QuilSession::listenOnPort: before: port[" + number(port) + "] fd[-1]\n");
    }
}

TEST_F(Session, DoesNotListenAnewWhileItListens) {
    const int port = listen();
    const int socket = m_session.getPort().getSocket();
    clearRecordedLines();
    m_session.listenOnPort();
    EXPECT_EQ(m_session.getPort().getSocket(), socket);
    EXPECT_EQ(recordedText(), "6 QuilSession::listenOnPort: before: port[" + number(port) +
                                  "] fd[" + number(socket) + "]\n");
}

TEST_F(Session, DoesNotListenWithAnySocketBut1Below0) {
    for (const int socket : {0, -2}) {
        m_session.getPort().setPort(freePort());
        m_session.getPort().setSocket(socket);
        m_session.listenOnPort();
        EXPECT_EQ(m_session.getPort().getSocket(), socket);
    }
}

TEST_F(Session, FailureToListenLeavesTheSocketAtMinus1AndThePort) {
    QuilSession other("other", "");
    const int port = listen();
    other.getPort().setPort(port);
    clearRecordedLines();
    other.listenOnPort();
    EXPECT_EQ(other.getPort().getSocket(), -1);
    EXPECT_EQ(other.getPort().getPort(), port);
    EXPECT_TRUE(
        wasLogged(6, "QuilSession::listenOnPort: after: port {" + number(port) + "] fd[-1]"))
        << recordedText();
}

TEST_F(Session, ListenAfterAFailureTriesAgain) {
    QuilSession other("other", "");
    const int port = listen();
    other.getPort().setPort(port);
    other.listenOnPort();
    m_session.stopListenOnPort();
    other.listenOnPort();
    EXPECT_TRUE(isListening(port));
}

TEST_F(Session, StopClosesTheSocketAndForgetsThePort) {
    const int port = listen();
    const int socket = m_session.getPort().getSocket();
    clearRecordedLines();
    m_session.stopListenOnPort();
    EXPECT_FALSE(isOpen(socket));
    EXPECT_FALSE(isListening(port));
    EXPECT_EQ(m_session.getPort().getPort(), -1);
    EXPECT_EQ(m_session.getPort().getSocket(), -1);
    EXPECT_EQ(recordedText(), "6 stopListenOnPort: shutdown fd " + number(socket) +
                                  " returned 0 and errno 0\n6 stopListenOnPort: close fd " +
                                  number(socket) + " returned 0\n");
}

TEST_F(Session, StopInTerminateChangesNothing) {
    const int port = listen();
    const int socket = m_session.getPort().getSocket();
    putIntoState(m_session, STATE_TERMINATE);
    clearRecordedLines();
    m_session.stopListenOnPort();
    EXPECT_TRUE(isListening(port));
    EXPECT_EQ(m_session.getPort().getPort(), port);
    EXPECT_EQ(m_session.getPort().getSocket(), socket);
    EXPECT_EQ(recordedText(), "");
}

TEST_F(Session, StopWithoutASocketStillForgetsThePort) {
    m_session.getPort().setPort(4711);
    m_session.getPort().setWaitingForClient(true);
    clearRecordedLines();
    m_session.stopListenOnPort();
    EXPECT_EQ(m_session.getPort().getPort(), -1);
    EXPECT_FALSE(m_session.getPort().isWaitingForClient());
    EXPECT_EQ(recordedText(), "");
}

TEST_F(Session, StopLeavesDescriptor0Alone) {
    m_session.getPort().setSocket(0);
    clearRecordedLines();
    m_session.stopListenOnPort();
    EXPECT_EQ(m_session.getPort().getSocket(), -1);
    EXPECT_EQ(recordedText(), "");
}

TEST_F(Session, FailedShutdownLeavesTheDescriptorOpen) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    m_session.getPort().setSocket(ends[0]);
    errno = EINTR;  // of an earlier call: it must not show
    clearRecordedLines();
    m_session.stopListenOnPort();
    EXPECT_TRUE(isOpen(ends[0]));
    EXPECT_EQ(m_session.getPort().getSocket(), -1);
    EXPECT_EQ(recordedText(), "6 stopListenOnPort: shutdown fd " + number(ends[0]) +
                                  " returned -1 and errno " + number(ENOTSOCK) + "\n");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Session, DestructionStopsListeningAlsoInTerminate) {
    auto session = std::make_unique<QuilSession>("app", "@ipc.1");
    const int port = freePort();
    session->getPort().setPort(port);
    session->listenOnPort();
    putIntoState(*session, STATE_TERMINATE);
    ASSERT_TRUE(isListening(port));
    session.reset();
    EXPECT_FALSE(isListening(port));
}

TEST_F(Session, SaveWritesItsFieldsInOrder) {
    m_session.setPpgUrl("http://ppg/x");
    m_session.setLaunchString("run \"it\"");
    m_session.setToken("2FFF");
    m_session.getPort().setPort(4711);
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, "@o");
    pps_encoder_start_array(&encoder, "sessions");
    clearRecordedLines();
    m_session.save(&encoder);
    pps_encoder_end_array(&encoder);
    EXPECT_STREQ(pps_encoder_buffer(&encoder),
                 "@o\nsessions:json:[{\"providerApplicationId\":\"app\","
                 "\"ppgUrl\":\"http://ppg/x\",\"launchString\":\"run \\\"it\\\"\","
                 "\"token\":\"2FFF\",\"port\":4711}]\n");
    EXPECT_EQ(recordedText(), "6 Save: appid [app] ppgUrl [http://ppg/x]\n");
}

TEST_F(Session, SaveWritesPortMinus1WithoutAPort) {
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, "@o");
    pps_encoder_start_array(&encoder, "sessions");
    m_session.save(&encoder);
    pps_encoder_end_array(&encoder);
    EXPECT_NE(std::string(pps_encoder_buffer(&encoder)).find("\"port\":-1}"), std::string::npos)
        << pps_encoder_buffer(&encoder);
}

TEST_F(SavedSession, ListensAtOnceInTerminateWithTheSameSim) {
    const int port = freePort();
    decode(
        "{\"providerApplicationId\":\"a\",\"ppgUrl\":\"u\",\"launchString\":\"l\","
        "\"token\":\"t\",\"port\":" +
        number(port) + "}");
    clearRecordedLines();
    QuilSession session(&m_decoder, true);
    EXPECT_EQ(session.getProviderAppId(), "a");
    EXPECT_EQ(session.getPort().getName(), "a");
    EXPECT_EQ(session.getPpgUrl(), "u");
    EXPECT_EQ(session.getLaunchString(), "l");
    EXPECT_EQ(session.getToken(), "t");
    EXPECT_EQ(session.getClientObjectId(), "");
    EXPECT_EQ(session.getPort().getPort(), port);
    EXPECT_TRUE(isListening(port));
    EXPECT_TRUE(session.isTerminated());
    EXPECT_TRUE(wasLogged(6,
                          "load from persistent storage: appid [a] ppgUrl [u] token [t] "
                          "launchString [l] port [" +
                              number(port) + "] state type [5]"))
        << recordedText();
    EXPECT_EQ(recordedText().find("next state"), std::string::npos) << "no transition is logged";
}

TEST_F(SavedSession, ListensAtOnceInSimChangeWithAnotherSim) {
    const int port = freePort();
    decode("{\"providerApplicationId\":\"a\",\"port\":" + number(port) + "}");
    QuilSession session(&m_decoder, false);
    EXPECT_TRUE(isListening(port));
    EXPECT_EQ(stateOf(session), STATE_SIM_CHANGE);
    EXPECT_TRUE(wasLogged(6,
                          "load from persistent storage: appid [a] ppgUrl [] token [] "
                          "launchString [] port [" +
                              number(port) + "] state type [6]"))
        << recordedText();
}

TEST_F(SavedSession, ListensBeforeItHasAState) {
    decode("{\"providerApplicationId\":\"a\",\"port\":" + number(freePort()) + "}");
    clearRecordedLines();
    const QuilSession session(&m_decoder, true);
    const std::string text = recordedText();
    EXPECT_LT(text.find("listenOnPort: after"), text.find("load from persistent storage")) << text;
}

TEST_F(SavedSession, WithPortMinus1DoesNotListen) {
    decode("{\"providerApplicationId\":\"a\",\"port\":-1}");
    clearRecordedLines();
    const QuilSession session(&m_decoder, true);
    EXPECT_EQ(session.getPort().getPort(), -1);
    EXPECT_EQ(session.getPort().getSocket(), -1);
    EXPECT_EQ(recordedText(),
              "6 QuilSession::listenOnPort: before: port[-1] fd[-1]\n"
              "6 load from persistent storage: appid [a] ppgUrl [] token [] launchString [] port "
              "[-1] state type [5]\n");
}

TEST_F(SavedSession, WithoutAnyFieldIsEmptyWithoutPort) {
    decode("{}");
    QuilSession session(&m_decoder, true);
    EXPECT_EQ(session.getProviderAppId(), "");
    EXPECT_EQ(session.getPort().getPort(), -1);
    EXPECT_TRUE(session.isTerminated());
}

TEST_F(SavedSession, FieldsOfTheWrongTypeCountAsAbsent) {
    decode(
        "{\"providerApplicationId\":1,\"ppgUrl\":{},\"launchString\":[\"x\"],\"token\":true,"
        "\"port\":\"4711\"}");
    const QuilSession session(&m_decoder, true);
    EXPECT_EQ(session.getProviderAppId(), "");
    EXPECT_EQ(session.getPpgUrl(), "");
    EXPECT_EQ(session.getLaunchString(), "");
    EXPECT_EQ(session.getToken(), "");
    EXPECT_EQ(session.getPort().getPort(), -1);
}

TEST_F(SavedSession, PortBeyondAllPortsIsKeptButNotListenedOn) {
    decode("{\"providerApplicationId\":\"a\",\"port\":65536}");
    const QuilSession session(&m_decoder, true);
    EXPECT_EQ(session.getPort().getPort(), 65536);
    EXPECT_EQ(session.getPort().getSocket(), -1);
}

TEST_F(SavedSession, RunningOutOfMemoryLeavesNoSocketBehind) {
    const int port = freePort();
    decode("{\"providerApplicationId\":\"" + longText('a') + "\",\"port\":" + number(port) + "}");
    int failures = 0;
    for (bool isMade = false; !isMade; ++failures) {
        ASSERT_LT(failures, 50);
        const ScarceMemory memory(kLongTextBytes, failures);
        try {
            const QuilSession session(&m_decoder, true);
            isMade = true;
        } catch (const std::bad_alloc&) {
            ASSERT_FALSE(isListening(port)) << "after failure " << failures;
        }
    }
    EXPECT_GT(failures, 2);
}
