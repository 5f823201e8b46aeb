// Finishing what requests began.

#include "agent/requests/request_completion.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "agent/messages/message_factory.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/sessions/save_and_wake.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/clients_fixture.hpp"
#include "tests/support/loopback.hpp"

namespace {

constexpr const char* kSaved = "/pps/services/push/quilagent";

class Completion : public ClientsTest {
  protected:
    Completion() {
        // Until the main loop has made its pipe, wake-ups go to standard input: a pipe here.
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        m_wakeUps = ends[0];
        EXPECT_EQ(dup2(ends[1], 0), 0);
        serveObject();
        QuilDataManager::getInstance();
        clearRecordedLines();
    }

    // The bytes by which the main loop has been woken so far.
    std::string wakeUps() const {
        char bytes[64];
        const ssize_t count = read(m_wakeUps, bytes, sizeof bytes);
        return count <= 0 ? "" : std::string(bytes, static_cast<std::size_t>(count));
    }

    static QuilServerRegMessage makeRequest(int code) {
        QuilServerRegMessage message("app", "1", "@ipc.17", "http://h");
        message.setErrorCode(code);
        return message;
    }

    static std::unique_ptr<QuilBaseMessage> makeDestroyed(int code) {
        auto message = std::make_unique<QuilDestroyChannelCompleteMessage>("app", "1", "@ipc.17");
        message->setErrorCode(code);
        return message;
    }

    int m_wakeUps = -1;
};

// `text` up to and including its line feed must stand in the log before `later`.
void expectOrder(const std::vector<std::string>& beginnings) {
    const std::string text = "\n" + recordedText();
    std::size_t at = 0;
    for (const std::string& beginning : beginnings) {
        const std::size_t found = text.find("\n" + beginning, at);
        ASSERT_NE(found, std::string::npos) << beginning << "\nnot in its place in" << text;
        at = found + 1;
    }
}

}  // namespace

TEST_F(Completion, ReplyForAKnownApplicationKeepsItsCode) {
    addSession("app", "@ipc.17");
    clearRecordedLines();
    auto message = std::make_unique<QuilResponseMessage>("app", "1", "@ipc.17");
    message->setErrorCode(10101);
    sendCallbackResponse(std::move(message));
    EXPECT_EQ(nextReply(), golden("replies_launch_empty_string.txt"));
    EXPECT_EQ(linesOf({"request_completion.cpp", "enqueue.cpp", "save_and_wake.cpp"}),
              "6 : Sending data back to app id[app] client id[@ipc.17] err[10101]\n");
}

TEST_F(Completion, ReplyForAnUnknownApplicationIs500WhateverItWas) {
    for (const int code : {0, 10100}) {
        clearRecordedLines();
        auto message = std::make_unique<QuilCreateSessionCompleteMessage>("app", "1", "@ipc.17");
        message->setErrorCode(code);
        sendCallbackResponse(std::move(message));
        EXPECT_EQ(nextReply(), golden("replies_session_not_created.txt"));
        EXPECT_EQ(linesOf({"request_completion.cpp", "enqueue.cpp", "save_and_wake.cpp"}),
                  "3 Cannot find [app] in session map. Existing error [" + std::to_string(code) +
                      "]\n"
                      "6 onCreateSessionComplete: Sending data back to app id[app] client "
                      "id[@ipc.17] err[500]\n");
    }
}

TEST_F(Completion, RegisteredChannelGivesTheTokenSavesAndWakesTheLoop) {
    QuilSession* session = addSession("app", "@ipc.17");
    session->getPort().setPort(5000);
    clearRecordedLines();
    QuilServerRegMessage request = makeRequest(0);
    addCreateChannelCompletedMessage(request);
    EXPECT_TRUE(session->isRegistered());
    EXPECT_EQ(session->getToken(), "2a3b");
    EXPECT_EQ(request.getErrorCode(), 0);
    EXPECT_EQ(wakeUps(), "a");
    EXPECT_EQ(drainQueue(), "type=2 app=app id=1 client=@ipc.17 err=0 token=2a3b\n");
    EXPECT_EQ(linesOf({"request_completion.cpp", "enqueue.cpp", "save_and_wake.cpp"}),
              "6 addCreateChannelCompletedMessage: provider app id [app]\n"
              "5 addMessage: msg type[2] provider id[app] errorCode[0]\n"
              "5 addMessage: for provider app id[app] error[0] done.\n"
              "5 Save to persistent memory returns 1\n");
    EXPECT_NE(readFile(kSaved).find("\"token\":\"2a3b\",\"port\":5000"), std::string::npos)
        << readFile(kSaved);
}

TEST_F(Completion, RegisteredChannelEntersItsStateBeforeTheApplicationIsTold) {
    addSession("app", "@ipc.17");
    clearRecordedLines();
    QuilServerRegMessage request = makeRequest(0);
    addCreateChannelCompletedMessage(request);
    expectOrder({"6 addCreateChannelCompletedMessage: provider app id [app]",
                 "5  Provider app id [app] current state[Create] next state[Register]",
                 "5 Open [/pps/system/nvram/deviceinfo]", "5 addMessage: msg type[2]",
                 "5 Save to persistent memory returns 1"});
}

TEST_F(Completion, LoopIsWokenBeforeTheChannelCompletionIsQueued) {
    addSession("app", "@ipc.17");
    close(0);
    QuilServerRegMessage request = makeRequest(0);
    addCreateChannelCompletedMessage(request);
    expectOrder({"6 Failed to write pipe!!", "5 addMessage: msg type[2]"});
}

TEST_F(Completion, ChannelOfADeletedSessionComesToRegisterAgain) {
    QuilSession* session = addSession<QuilDeleteState>("app", "@ipc.17");
    QuilServerRegMessage request = makeRequest(0);
    addCreateChannelCompletedMessage(request);
    EXPECT_TRUE(session->isRegistered());
}

// Kept on purpose: the application knows a failed creation by its empty token.
TEST_F(Completion, FailedRegistrationLeavesWithoutACodeAndSavesNothing) {
    QuilSession* session = addSession("app", "@ipc.17");
    clearRecordedLines();
    for (const int code : {10103, -1}) {
        QuilServerRegMessage request = makeRequest(code);
        addCreateChannelCompletedMessage(request);
        EXPECT_EQ(request.getErrorCode(), code);
        EXPECT_EQ(drainQueue(), "type=2 app=app id=1 client=@ipc.17 err=0 token=\n");
        EXPECT_EQ(wakeUps(), "a");
    }
    EXPECT_TRUE(session->isCreated());
    EXPECT_EQ(session->getToken(), "");
    EXPECT_FALSE(wasLogged(5, "Save to persistent memory returns 1")) << recordedText();
}

TEST_F(Completion, RegistrationOfAVanishedSessionMarksTheRequestAndStillReplies) {
    QuilServerRegMessage request = makeRequest(0);
    addCreateChannelCompletedMessage(request);
    EXPECT_EQ(request.getErrorCode(), 10100);
    EXPECT_EQ(wakeUps(), "a");
    EXPECT_EQ(drainQueue(), "type=2 app=app id=1 client=@ipc.17 err=0 token=\n");
    EXPECT_EQ(linesOf({"request_completion.cpp", "enqueue.cpp", "save_and_wake.cpp"}),
              "6 addCreateChannelCompletedMessage: provider app id [app]\n"
              "3 addCreateChannelCompletedMessage: provider App Id[app] not found\n"
              "5 addMessage: msg type[2] provider id[app] errorCode[0]\n"
              "5 addMessage: for provider app id[app] error[0] done.\n");
}

TEST_F(Completion, DeregistrationQueuesItsCompletionWithItsResult) {
    addDestroyChannelCompletedMessage(makeRequest(0));
    addDestroyChannelCompletedMessage(makeRequest(10103));
    EXPECT_EQ(drainQueue(),
              "type=3 app=app id=1 client=@ipc.17 err=0\n"
              "type=3 app=app id=1 client=@ipc.17 err=10103\n");
    EXPECT_EQ(wakeUps(), "");
}

TEST_F(Completion, DestroyedChannelStopsListeningRepliesAndCleansUp) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    int port = 0;
    const int listener = listenAnywhere(&port);
    session->getPort().setSocket(listener);
    session->getPort().setPort(port);
    clearRecordedLines();
    processDestroyChannelCallback(makeDestroyed(0));
    EXPECT_TRUE(session->isDeleted());
    EXPECT_EQ(session->getPort().getSocket(), -1);
    EXPECT_EQ(fcntl(listener, F_GETFD), -1);
    EXPECT_EQ(nextReply(), golden("replies_channel_destroyed.txt"));
    EXPECT_EQ(wakeUps(), "a");
    // The line tells of the port and socket that there were.
    EXPECT_EQ(linesOf({"request_completion.cpp", "enqueue.cpp", "save_and_wake.cpp"}),
              "6 processDestroyChannelCallback: app id [app] error code [0]\n"
              "6 processDestroyChannelCallback: is_sim_changed [0]\n"
              "5 processDestroyChannelCallback: destroy Channel: app id[app] port number[" +
                  std::to_string(port) + "] socket/fd [" + std::to_string(listener) +
                  "] isSimChange[0]\n"
                  "5 cleanup: Save to persistent memory returns 1\n");
}

TEST_F(Completion, DestroyedChannelEntersDeleteThenStopsThenRepliesThenSaves) {
    QuilSession* session = addSession<QuilTerminateState>("app", "@ipc.17");
    int port = 0;
    session->getPort().setSocket(listenAnywhere(&port));
    session->getPort().setPort(port);
    clearRecordedLines();
    processDestroyChannelCallback(makeDestroyed(0));
    expectOrder({"5  Provider app id [app] current state[Terminate] next state[Delete]",
                 "6 stopListenOnPort: close fd", "5 sendMessage: Callback",
                 "5 processDestroyChannelCallback: destroy Channel", "5 cleanup: Save"});
}

TEST_F(Completion, FailedDestroyKeepsStateAndPortAndCarriesItsCode) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    session->getPort().setPort(5000);
    processDestroyChannelCallback(makeDestroyed(10103));
    EXPECT_TRUE(session->isRegistered());
    EXPECT_EQ(session->getPort().getPort(), 5000);
    EXPECT_EQ(nextReply(), golden("replies_channel_destroy_server_failure.txt"));
    EXPECT_EQ(wakeUps(), "a");
    EXPECT_TRUE(wasLogged(5, "cleanup: Save to persistent memory returns 1"));
}

TEST_F(Completion, DestroyedChannelOfAnotherSimIsReportedAsSimChange) {
    QuilSession* session = addSession<QuilSimChangeState>("app", "");
    session->getPort().setPort(5000);
    clearRecordedLines();
    processDestroyChannelCallback(
        std::make_unique<QuilDestroyChannelCompleteMessage>("app", "", ""));
    EXPECT_EQ(nextReply(), golden("replies_sim_changed.txt"));
    EXPECT_TRUE(session->isDeleted());
    EXPECT_TRUE(wasLogged(6, "processDestroyChannelCallback: is_sim_changed [1]"));
    EXPECT_TRUE(wasLogged(5,
                          "processDestroyChannelCallback: destroy Channel: app id[app] port "
                          "number[5000] socket/fd [-1] isSimChange[1]"))
        << recordedText();
}

TEST_F(Completion, FailedDestroyOfAnotherSimIsReportedAsSimChangeWithItsCode) {
    QuilSession* session = addSession<QuilSimChangeState>("app", "");
    processDestroyChannelCallback(makeDestroyed(10103));
    EXPECT_EQ(nextReply(), "@ipc.17\nmsg::onSimChange\nid::1\nerr:n:10103\n");
    EXPECT_TRUE(session->isSimChanged());
}

// Asked for in this order: the end of a channel, then a channel.
TEST_F(Completion, ChannelAskedForLaterThanADeregistrationStands) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    DeregistrationOrigin origin;
    origin.channelRequests = session->getChannelRequests();
    session->countChannelRequest();
    int port = 0;
    const int listener = listenAnywhere(&port);
    session->getPort().setSocket(listener);
    session->getPort().setPort(port);
    for (const int code : {0, 10103}) {
        auto message = std::make_unique<QuilDestroyChannelCompleteMessage>("app", "1", "@ipc.17");
        message->setErrorCode(code);
        message->setOrigin(origin);
        clearRecordedLines();
        processDestroyChannelCallback(std::move(message));
        EXPECT_TRUE(session->isRegistered());
        EXPECT_EQ(session->getPort().getSocket(), listener);
        EXPECT_TRUE(isListening(port));
        EXPECT_EQ(nextReply(), golden(code == 0 ? "replies_channel_destroyed.txt"
                                                : "replies_channel_destroy_server_failure.txt"));
        EXPECT_EQ(wakeUps(), "");
        EXPECT_EQ(linesOf("save_and_wake.cpp"), "");
    }
}

TEST_F(Completion, SimChangeIsToldAlsoWhenTheSessionHasANewChannel) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    DeregistrationOrigin origin;
    origin.channelRequests = session->getChannelRequests();
    origin.isSimChange = true;
    session->countChannelRequest();
    auto message = std::make_unique<QuilDestroyChannelCompleteMessage>("app", "", "");
    message->setOrigin(origin);
    processDestroyChannelCallback(std::move(message));
    EXPECT_EQ(nextReply(), golden("replies_sim_changed.txt"));
    EXPECT_TRUE(session->isRegistered());
    EXPECT_TRUE(wasLogged(6, "processDestroyChannelCallback: is_sim_changed [1]"));
}

TEST_F(Completion, DeregistrationKeepsWhereItComesFrom) {
    QuilServerRegMessage request = makeRequest(0);
    request.setOrigin({.channelRequests = 3, .isSimChange = true});
    addDestroyChannelCompletedMessage(request);
    const std::unique_ptr<QuilMessageNode> node = QuilMessageManager::getInstance()->pop();
    const auto copy = QuilMessageFactory::getInstance()->copyMessage(node.get());
    const auto* completion = dynamic_cast<QuilDestroyChannelCompleteMessage*>(copy.get());
    ASSERT_NE(completion, nullptr);
    EXPECT_EQ(completion->getOrigin().channelRequests, 3);
    EXPECT_TRUE(completion->getOrigin().isSimChange);
}

// A state that cannot be made is told by its line; the completion goes on.
TEST_F(Completion, RegistrationWithoutMemoryForTheStateLeavesTheStateAndSaysSo) {
    QuilSession* session = addSession("app", "@ipc.17");
    QuilServerRegMessage request = makeRequest(0);
    {
        const FailingAllocations noStates(sizeof(QuilRegisterState), sizeof(QuilRegisterState));
        addCreateChannelCompletedMessage(request);
    }
    EXPECT_TRUE(session->isCreated());
    EXPECT_TRUE(wasLogged(
        3, "Provider id [app]: problem transition from current state [?] to next state[?]"))
        << recordedText();
    EXPECT_EQ(drainQueue(), "type=2 app=app id=1 client=@ipc.17 err=0 token=2a3b\n");
}

TEST_F(Completion, DestroyOfAVanishedSessionIs500AndNothingElse) {
    for (const int code : {0, 10002}) {
        clearRecordedLines();
        processDestroyChannelCallback(makeDestroyed(code));
        EXPECT_EQ(nextReply(), golden("replies_channel_destroy_no_app_id.txt"));
        EXPECT_EQ(linesOf({"request_completion.cpp", "enqueue.cpp", "save_and_wake.cpp"}),
                  "6 processDestroyChannelCallback: app id [app] error code [" +
                      std::to_string(code) +
                      "]\n"
                      "3 Cannot find [app] in session map. Existing error [" +
                      std::to_string(code) + "]\n");
    }
    EXPECT_EQ(wakeUps(), "");
}

TEST_F(Completion, CleanupWakesTheLoopBeforeItSaves) {
    cleanup();
    EXPECT_EQ(wakeUps(), "a");
    EXPECT_EQ(linesOf({"request_completion.cpp", "enqueue.cpp", "save_and_wake.cpp"}),
              "5 cleanup: Save to persistent memory returns 1\n");
}

TEST_F(Completion, CleanupGoesOnWhenTheLoopCannotBeWoken) {
    close(0);
    cleanup();
    expectOrder({"6 Failed to write pipe!!", "5 Save: Wrote",
                 "5 cleanup: Save to persistent memory returns 1"});
}
