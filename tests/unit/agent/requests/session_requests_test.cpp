// What each session request does to the session, the queue and the saved sessions.

#include "agent/requests/session_requests.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "agent/messages/message_queue.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "agent/support/high_descriptor.hpp"
#include "tests/support/agent/clients_fixture.hpp"

namespace {

constexpr const char* kSaved = "/pps/services/push/quilagent";

class SessionRequests : public ClientsTest {
  protected:
    SessionRequests() {
        serveObject();
        QuilDataManager::getInstance();
        clearRecordedLines();
    }

    // Lets the session listen for real; gives its port.
    static int giveListener(QuilSession* session) {
        int port = 0;
        session->getPort().setSocket(listenAnywhere(&port));
        session->getPort().setPort(port);
        return port;
    }
};

std::string stateOf(const QuilSession& session) {
    return session.isCreated()      ? "Create"
           : session.isDeleted()    ? "Delete"
           : session.isTerminated() ? "Terminate"
           : session.isSimChanged() ? "SimChange"
           : session.isRegistered() ? "Register"
                                    : "other";
}

}  // namespace

TEST_F(SessionRequests, CreateSessionMakesASessionInCreateAndQueuesItsReply) {
    quilCreateSession("app", "1", "@ipc.17");
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId("app");
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(stateOf(*session), "Create");
    EXPECT_EQ(session->getClientObjectId(), "@ipc.17");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilCreateSession Called\n\n"
              "6 quilCreateSession provider id [app] client id [@ipc.17]\n");
    EXPECT_EQ(drainQueue(), "type=1 app=app id=1 client=@ipc.17 err=0\n");
}

TEST_F(SessionRequests, CreateSessionForAnExistingOneKeepsItAndGivesItTheClient) {
    QuilSession* session = addSession("app", "@ipc.1");
    session->setLaunchString("kept");
    quilCreateSession("app", "2", "@ipc.2");
    EXPECT_EQ(QuilSessionManager::getInstance()->getSessionByAppId("app"), session);
    EXPECT_EQ(session->getClientObjectId(), "@ipc.2");
    EXPECT_EQ(session->getLaunchString(), "kept");
    EXPECT_EQ(drainQueue(), "type=1 app=app id=2 client=@ipc.2 err=0\n");
}

TEST_F(SessionRequests, CreateSessionThatTheRegistryRefusesIs500) {
    quilCreateSession("", "1", "@ipc.17");
    EXPECT_EQ(drainQueue(), "type=1 app= id=1 client=@ipc.17 err=500\n");
}

TEST_F(SessionRequests, CreateChannelWithoutSessionIs10100) {
    quilCreateChannel("app", "1", "@ipc.17", "http://h");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilCreateChannel Called with app http://h\n\n"
              "3 quilCreateChannel: session for app id [app] not found.\n");
    EXPECT_EQ(drainQueue(), "type=2 app=app id=1 client=@ipc.17 err=10100 token=\n");
}

TEST_F(SessionRequests, CreateChannelWithoutSessionAndUrlIs10100) {
    quilCreateChannel("app", "1", "@ipc.17", "");
    EXPECT_EQ(drainQueue(), "type=2 app=app id=1 client=@ipc.17 err=10100 token=\n");
}

TEST_F(SessionRequests, CreateChannelWithoutUrlIs10102AndChangesNothing) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    const int port = giveListener(session);
    session->setPpgUrl("http://old");
    clearRecordedLines();
    quilCreateChannel("app", "1", "@ipc.17", "");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilCreateChannel Called with app \n\n"
              "3 quilCreateChannel: empty ppgUrl.\n");
    EXPECT_EQ(drainQueue(), "type=2 app=app id=1 client=@ipc.17 err=10102 token=\n");
    EXPECT_EQ(stateOf(*session), "Register");
    EXPECT_EQ(session->getPort().getPort(), port);
    EXPECT_EQ(session->getPpgUrl(), "http://old");
}

TEST_F(SessionRequests, CreateChannelStoresTheUrlAndQueuesTheRegistration) {
    QuilSession* session = addSession("app", "@ipc.17");
    clearRecordedLines();
    quilCreateChannel("app", "1", "@ipc.17", "http://h");
    EXPECT_EQ(session->getPpgUrl(), "http://h");
    EXPECT_EQ(stateOf(*session), "Create");
    EXPECT_EQ(drainQueue(), "type=7 app=app id=1 client=@ipc.17 err=0 url=http://h register\n");
    EXPECT_EQ(linesOf("session_requests.cpp"), "6 quilCreateChannel Called with app http://h\n\n");
    EXPECT_EQ(linesOf("enqueue.cpp"),
              "5 addMessage: msg type[7] provider id[app] errorCode[0]\n"
              "5 addMessage: for provider app id[app] error[0] done.\n");
}

TEST_F(SessionRequests, CreateChannelOnARegisteredSessionRegistersFromScratch) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    giveListener(session);
    const int listener = session->getPort().getSocket();
    QuilDataManager::getInstance()->save();
    clearRecordedLines();
    quilCreateChannel("app", "1", "@ipc.17", "http://h");
    EXPECT_EQ(stateOf(*session), "Create");
    EXPECT_EQ(session->getPort().getSocket(), -1);
    EXPECT_EQ(session->getPort().getPort(), -1);
    EXPECT_EQ(session->getPpgUrl(), "http://h");
    EXPECT_EQ(drainQueue(), "type=7 app=app id=1 client=@ipc.17 err=0 url=http://h register\n");
    EXPECT_TRUE(wasLogged(5, "cleanup: Save to persistent memory returns 1")) << recordedText();
    EXPECT_NE(readFile(kSaved).find("\"sessions\":[]"), std::string::npos) << readFile(kSaved);
    EXPECT_EQ(fcntl(listener, F_GETFD), -1);
}

TEST_F(SessionRequests, RevertStopsListeningThenLogsThenEntersCreateThenCleansUp) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    giveListener(session);
    clearRecordedLines();
    quilCreateChannel("app", "1", "@ipc.17", "http://h");
    const std::string text = recordedText();
    const std::size_t stop = text.find("stopListenOnPort: close fd ");
    const std::size_t line = text.find("5 Registered state, revert back to Create state.\n");
    const std::size_t state =
        text.find("5  Provider app id [app] current state[Register] next state[Create]\n");
    const std::size_t save = text.find("5 cleanup: Save to persistent memory returns 1\n");
    const std::size_t queued = text.find("5 addMessage: msg type[7]");
    ASSERT_NE(queued, std::string::npos) << text;
    EXPECT_LT(stop, line) << text;
    EXPECT_LT(line, state) << text;
    EXPECT_LT(state, save) << text;
    EXPECT_LT(save, queued) << text;
}

// Stopping does nothing in Terminate, so it has to be done again afterwards.
TEST_F(SessionRequests, CreateChannelOnATerminatedSessionFreesItsPortAllTheSame) {
    QuilSession* session = addSession<QuilTerminateState>("app", "@ipc.17");
    giveListener(session);
    const int listener = session->getPort().getSocket();
    quilCreateChannel("app", "1", "@ipc.17", "http://h");
    EXPECT_EQ(stateOf(*session), "Create");
    EXPECT_EQ(session->getPort().getSocket(), -1);
    EXPECT_EQ(session->getPort().getPort(), -1);
    EXPECT_EQ(fcntl(listener, F_GETFD), -1);
}

TEST_F(SessionRequests, CreateChannelOnASessionOfAnotherSimFreesItsPort) {
    QuilSession* session = addSession<QuilSimChangeState>("app", "@ipc.17");
    giveListener(session);
    quilCreateChannel("app", "1", "@ipc.17", "http://h");
    EXPECT_EQ(stateOf(*session), "Create");
    EXPECT_EQ(session->getPort().getSocket(), -1);
}

TEST_F(SessionRequests, CreateChannelOnADeletedSessionOnlyQueuesTheRegistration) {
    QuilSession* session = addSession<QuilDeleteState>("app", "@ipc.17");
    clearRecordedLines();
    quilCreateChannel("app", "1", "@ipc.17", "http://h");
    EXPECT_EQ(stateOf(*session), "Delete");
    EXPECT_FALSE(wasLogged(5, "Registered state, revert back to Create state."));
    EXPECT_EQ(drainQueue(), "type=7 app=app id=1 client=@ipc.17 err=0 url=http://h register\n");
}

TEST_F(SessionRequests, DestroyChannelWithoutSessionIsAnsweredAtOnceWith10100) {
    quilDestroyChannel("app", "1", "@ipc.17", nullptr);
    EXPECT_EQ(repliesSoFar(), golden("replies_channel_destroy_no_session.txt"));
    EXPECT_EQ(drainQueue(), "");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilDestroyChannel Called app id [app]\n\n"
              "3 quilDestroyChannel: session for app id [app] not found.\n\n");
}

TEST_F(SessionRequests, DestroyChannelThatWasNeverRegisteredIsAnsweredAtOnceWith10106) {
    addSession("app", "@ipc.17");
    clearRecordedLines();
    quilDestroyChannel("app", "1", "@ipc.17", nullptr);
    EXPECT_EQ(repliesSoFar(), golden("replies_channel_destroy_not_registered.txt"));
    EXPECT_EQ(drainQueue(), "");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilDestroyChannel Called app id [app]\n\n"
              "6 quilDestroyChannel: found session but not registered!\n");
}

TEST_F(SessionRequests, DestroyChannelInAnyOtherStateIsAnsweredAtOnceWith10004) {
    QuilSession* session = addSession("app", "@ipc.17");
    session->enterState(std::make_unique<QuilIdleState>());
    quilDestroyChannel("app", "1", "@ipc.17", nullptr);
    session->enterState(std::make_unique<QuilDeleteState>());
    quilDestroyChannel("app", "1", "@ipc.17", nullptr);
    session->enterState(std::make_unique<QuilUnregisterState>());
    quilDestroyChannel("app", "1", "@ipc.17", nullptr);
    const std::string reply = golden("replies_channel_destroy_wrong_state.txt");
    EXPECT_EQ(repliesSoFar(), reply + reply + reply);
    EXPECT_EQ(drainQueue(), "");
}

TEST_F(SessionRequests, DestroyChannelOfARegisteredSessionQueuesItsDeregistrationAndNothingElse) {
    QuilSession* session = addSession("app", "@ipc.1");
    session->setPpgUrl("http://h");
    const auto destroyIn = [&](std::unique_ptr<QuilBaseState> state, const std::string& name) {
        session->enterState(std::move(state));
        giveListener(session);
        quilDestroyChannel("app", "1", "@ipc.17", nullptr);
        EXPECT_EQ(drainQueue(), "type=8 app=app id=1 client=@ipc.17 err=0 url=http://h leave\n");
        EXPECT_EQ(repliesSoFar(), "");
        EXPECT_EQ(stateOf(*session), name);
        EXPECT_NE(session->getPort().getSocket(), -1);
        EXPECT_EQ(session->getClientObjectId(), "@ipc.1");
    };
    destroyIn(std::make_unique<QuilRegisterState>(), "Register");
    destroyIn(std::make_unique<QuilTerminateState>(), "Terminate");
    destroyIn(std::make_unique<QuilSimChangeState>(), "SimChange");
}

TEST_F(SessionRequests, DestroyChannelTakesTheSessionThatItIsGiven) {
    QuilSession unlisted("app", "@ipc.17");
    unlisted.enterState(std::make_unique<QuilRegisterState>());
    unlisted.setPpgUrl("http://unlisted");
    quilDestroyChannel("app", "", "", &unlisted);
    EXPECT_EQ(drainQueue(), "type=8 app=app id= client= err=0 url=http://unlisted leave\n");
}

TEST_F(SessionRequests, RegisterToLaunchStoresAndSavesTheString) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    session->getPort().setPort(5000);
    clearRecordedLines();
    quilRegisterToLaunch("app", "1", "@ipc.17", "launch me");
    EXPECT_EQ(session->getLaunchString(), "launch me");
    EXPECT_EQ(drainQueue(), "type=4 app=app id=1 client=@ipc.17 err=0\n");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilRegisterToLaunch Called app id [app]\n\n"
              "5 quilRegisterToLaunch: Save to persistent memory returns 1\n"
              "6 quilRegisterToLaunch: launchString [launch me]\n");
    EXPECT_NE(readFile(kSaved).find("\"launchString\":\"launch me\""), std::string::npos)
        << readFile(kSaved);
}

TEST_F(SessionRequests, RegisterToLaunchTwiceWithOneStringSavesOnce) {
    addSession("app", "@ipc.17");
    quilRegisterToLaunch("app", "1", "@ipc.17", "launch");
    clearRecordedLines();
    quilRegisterToLaunch("app", "2", "@ipc.17", "launch");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilRegisterToLaunch Called app id [app]\n\n"
              "6 quilRegisterToLaunch: launchString [launch]\n");
    EXPECT_EQ(drainQueue(),
              "type=4 app=app id=1 client=@ipc.17 err=0\n"
              "type=4 app=app id=2 client=@ipc.17 err=0\n");
}

TEST_F(SessionRequests, LaunchStringsAreComparedByteForByte) {
    QuilSession* session = addSession("app", "@ipc.17");
    quilRegisterToLaunch("app", "1", "@ipc.17", "launch");
    quilRegisterToLaunch("app", "1", "@ipc.17", "Launch");
    EXPECT_EQ(session->getLaunchString(), "Launch");
    EXPECT_EQ(countRecorded(5, "quilRegisterToLaunch: Save to persistent memory returns 1"), 2);
}

TEST_F(SessionRequests, RegisterToLaunchWithAnEmptyStringIs10101AndKeepsTheOldOne) {
    QuilSession* session = addSession("app", "@ipc.17");
    session->setLaunchString("old");
    clearRecordedLines();
    quilRegisterToLaunch("app", "1", "@ipc.17", "");
    EXPECT_EQ(session->getLaunchString(), "old");
    EXPECT_EQ(drainQueue(), "type=4 app=app id=1 client=@ipc.17 err=10101\n");
    EXPECT_EQ(linesOf("session_requests.cpp"), "6 quilRegisterToLaunch Called app id [app]\n\n");
}

TEST_F(SessionRequests, QueryChannelWithoutSessionIsAnsweredAtOnceWith10100) {
    quilQueryChannel("app", "1", "@ipc.17");
    EXPECT_EQ(repliesSoFar(), golden("replies_channel_query_no_session.txt"));
    EXPECT_EQ(drainQueue(), "");
}

TEST_F(SessionRequests, QueryChannelTellsOfAChannelThatStands) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    const int port = giveListener(session);
    session->setPpgUrl("http://h");
    session->setToken("2a3b");
    quilQueryChannel("app", "1", "@ipc.17");
    EXPECT_EQ(repliesSoFar(),
              "@ipc.17\nmsg::onQueryChannelComplete\nid::1\n"
              "dat:json:{\"registered\":1,\"listening\":1,\"port\":" +
                  std::to_string(port) + ",\"token\":\"2a3b\",\"ppgUrl\":\"http://h\"}\n");
    EXPECT_EQ(drainQueue(), "");
}

TEST_F(SessionRequests, QueryChannelTellsOfAPortOnWhichNobodyListens) {
    QuilSession* session = addSession<QuilTerminateState>("app", "@ipc.17");
    session->getPort().setPort(24010);
    session->getPort().setSocket(-1);
    session->setPpgUrl("http://h");
    session->setToken("2a3b");
    quilQueryChannel("app", "1", "@ipc.17");
    EXPECT_EQ(repliesSoFar(),
              "@ipc.17\nmsg::onQueryChannelComplete\nid::1\n"
              "dat:json:{\"registered\":1,\"listening\":0,\"port\":24010,\"token\":\"2a3b\","
              "\"ppgUrl\":\"http://h\"}\n");
}

TEST_F(SessionRequests, QueryChannelOfOneThatIsNotRegisteredTellsWhereItWasAskedForAndNoMore) {
    QuilSession* session = addSession("app", "@ipc.17");
    session->setPpgUrl("http://h");
    session->setToken("2a3b");
    session->getPort().setPort(24010);
    quilQueryChannel("app", "1", "@ipc.17");
    EXPECT_EQ(repliesSoFar(),
              "@ipc.17\nmsg::onQueryChannelComplete\nid::1\n"
              "dat:json:{\"registered\":0,\"listening\":0,\"port\":0,\"token\":\"\","
              "\"ppgUrl\":\"http://h\"}\n");
}

// It is given up, also where the push server could not be reached for that.
TEST_F(SessionRequests, QueryChannelDoesNotCountAChannelOfAnotherSim) {
    QuilSession* session = addSession<QuilSimChangeState>("app", "@ipc.17");
    giveListener(session);
    EXPECT_FALSE(session->getChannel().isRegistered);
    EXPECT_FALSE(session->getChannel().isListening);
}

// select has no room for it, so nobody takes what comes there.
TEST_F(SessionRequests, QueryChannelCountsASocketThatCannotBeWatchedAsNotListening) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    const int port = giveListener(session);
    const int low = session->getPort().getSocket();
    const int high = fcntl(low, F_DUPFD_CLOEXEC, FIRST_HIGH_DESCRIPTOR);
    ASSERT_GE(high, FIRST_HIGH_DESCRIPTOR);
    session->getPort().setSocket(high);
    EXPECT_FALSE(session->getChannel().isListening);
    EXPECT_EQ(session->getChannel().port, port);
    session->getPort().setSocket(low);
    close(high);
}

TEST_F(SessionRequests, QueryChannelChangesNothing) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.1");
    giveListener(session);
    const int socket = session->getPort().getSocket();
    const std::string saved = readFile(kSaved);
    quilQueryChannel("app", "1", "@ipc.2");
    EXPECT_EQ(stateOf(*session), "Register");
    EXPECT_EQ(session->getClientObjectId(), "@ipc.1");
    EXPECT_EQ(session->getPort().getSocket(), socket);
    EXPECT_EQ(session->getChannelRequests(), 0);
    EXPECT_EQ(readFile(kSaved), saved);
}

TEST_F(SessionRequests, RegisterToLaunchWithoutSessionIs10100) {
    quilRegisterToLaunch("app", "1", "@ipc.17", "launch");
    EXPECT_EQ(drainQueue(), "type=4 app=app id=1 client=@ipc.17 err=10100\n");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilRegisterToLaunch Called app id [app]\n\n"
              "3 quilRegisterToLaunch: session for app id [app] not found.\n\n");
}

TEST_F(SessionRequests, UnregisterFromLaunchClearsAndSavesUnderTheRegisterWording) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    session->getPort().setPort(5000);
    session->setLaunchString("launch");
    clearRecordedLines();
    quilUnregisterToLaunch("app", "1", "@ipc.17");
    EXPECT_EQ(session->getLaunchString(), "");
    EXPECT_EQ(drainQueue(), "type=4 app=app id=1 client=@ipc.17 err=0\n");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilRegisterToLaunch Called app id [app]\n\n"
              "5 quilUnregisterToLaunch: Save to persistent memory returns 1\n");
    EXPECT_NE(readFile(kSaved).find("\"launchString\":\"\""), std::string::npos)
        << readFile(kSaved);
}

TEST_F(SessionRequests, UnregisterFromLaunchSavesAlsoWhenThereWasNothing) {
    addSession("app", "@ipc.17");
    quilUnregisterToLaunch("app", "1", "@ipc.17");
    quilUnregisterToLaunch("app", "1", "@ipc.17");
    EXPECT_EQ(countRecorded(5, "quilUnregisterToLaunch: Save to persistent memory returns 1"), 2);
}

TEST_F(SessionRequests, UnregisterFromLaunchWithoutSessionIs10100UnderTheRegisterWording) {
    quilUnregisterToLaunch("app", "1", "@ipc.17");
    EXPECT_EQ(drainQueue(), "type=4 app=app id=1 client=@ipc.17 err=10100\n");
    EXPECT_EQ(linesOf("session_requests.cpp"),
              "6 quilRegisterToLaunch Called app id [app]\n\n"
              "3 quilRegisterToLaunch: session for app id [app] not found.\n\n");
}

// Its saved port was taken when the agent started, so it never listened; without a registration
// that port must not be saved again.
TEST_F(SessionRequests, CreateChannelForgetsAPortThatCouldNotBeOpened) {
    QuilSession* session = addSession<QuilTerminateState>("app", "@ipc.17");
    session->getPort().setPort(5000);
    ASSERT_EQ(session->getPort().getSocket(), -1);
    quilCreateChannel("app", "1", "@ipc.17", "http://h");
    EXPECT_TRUE(session->isCreated());
    EXPECT_EQ(session->getPort().getPort(), -1);
}

TEST_F(SessionRequests, DestroyRemembersHowManyChannelsWereAskedForAndWhetherTheSimBeganIt) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    addSession<QuilSimChangeState>("sim", "");
    quilDestroyChannel("app", "1", "@ipc.17", nullptr);
    quilCreateChannel("app", "2", "@ipc.17", "http://h");
    QuilSessionManager* sessions = QuilSessionManager::getInstance();
    quilDestroyChannel("sim", "", "", sessions->getSessionByAppId("sim"));
    quilDestroyChannel("sim", "3", "@ipc.18", nullptr);
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    const auto originOf = [queue] {
        const std::unique_ptr<QuilMessageNode> node = queue->pop();
        return dynamic_cast<QuilServerRegMessage&>(*node->getMessage()).getOrigin();
    };
    const DeregistrationOrigin asked = originOf();
    originOf();
    const DeregistrationOrigin bySim = originOf();
    EXPECT_FALSE(originOf().isSimChange) << "the application's own request";
    EXPECT_FALSE(asked.isSimChange);
    EXPECT_TRUE(bySim.isSimChange);
    EXPECT_TRUE(sessions->getSessionByAppId("app")->hasNewerChannelThan(asked.channelRequests));
    EXPECT_FALSE(sessions->getSessionByAppId("sim")->hasNewerChannelThan(bySim.channelRequests));
}

TEST_F(SessionRequests, RefusedCreateChannelIsNoNewerChannel) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    const int before = session->getChannelRequests();
    quilCreateChannel("app", "2", "@ipc.17", "");
    EXPECT_FALSE(session->hasNewerChannelThan(before));
}
