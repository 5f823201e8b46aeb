// A push on its way to the application, and the application's answer on its way back. The sender's
// connection is one end of a socket pair here.

#include "agent/push_delivery.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "agent/session_manager.hpp"
#include "agent/states/session_states.hpp"
#include "tests/unit/agent/clients_fixture.hpp"

namespace {

class PushDelivery : public ClientsTest {
  protected:
    PushDelivery() { serveObject(); }

    // The sender's end of a connection; `accepted` gets the agent's.
    static int openConnection(int* accepted) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        *accepted = ends[0];
        return ends[1];
    }

    // The push of the golden files; its id is " m1".
    static std::unique_ptr<QuilPushMessage> makePush(int socket) {
        const std::string bytes =
            "POST /x HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m1\r\n\r\nhello";
        auto push = std::make_unique<QuilPushMessage>("app", "@ipc.17");
        push->setPayload(bytes.data(), static_cast<int>(bytes.size()));
        push->createData();
        push->setSocket(socket);
        return push;
    }
};

const std::string kAcknowledgementBegin = "HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:";

}  // namespace

TEST_F(PushDelivery, PushReachesTheApplicationAndItsConnectionIsKept) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    session->getPort().setPort(5000);
    int accepted = -1;
    const int sender = openConnection(&accepted);
    clearRecordedLines();
    pushNotification(makePush(accepted));
    EXPECT_EQ(nextReply(), golden("replies_push_awaiting_answer.txt"));
    EXPECT_TRUE(isQuiet(sender));
    ASSERT_NE(session->getPushSocket(" m1"), nullptr);
    EXPECT_EQ(session->getPushSocket(" m1")->getSocket(), accepted);
    EXPECT_EQ(linesOf("push_delivery.cpp"),
              "6 pushNotification: app id[app]\n\n"
              "6 pushNotification: Sending data back to app id [app] port [5000] client "
              "id[@ipc.17]\n\n");
}

TEST_F(PushDelivery, ConnectionIsKeptBeforeTheApplicationIsTold) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    openConnection(&accepted);
    pushNotification(makePush(accepted));
    const std::string text = recordedText();
    ASSERT_NE(text.find("QuilSession::addPushSocket: adding"), std::string::npos) << text;
    EXPECT_LT(text.find("QuilSession::addPushSocket: adding"), text.find("sendMessage: Callback"))
        << text;
}

TEST_F(PushDelivery, PushWithoutAConnectionKeepsNone) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    clearRecordedLines();
    pushNotification(makePush(-1));
    EXPECT_EQ(nextReply(), golden("replies_push.txt"));
    EXPECT_EQ(session->getPushSocket(" m1"), nullptr);
    EXPECT_FALSE(
        wasLogged(3, "QuilSession::addPushSocket -- attempt to add invalid client Push Socket"));
}

// The id of the session's present client is for the log; a push goes to the client that the
// listener gave it.
TEST_F(PushDelivery, PushIsAddressedByItsOwnClientId) {
    addSession<QuilRegisterState>("app", "@ipc.99");
    pushNotification(makePush(-1));
    EXPECT_EQ(nextReply(), golden("replies_push.txt"));
    EXPECT_TRUE(wasLogged(
        6, "pushNotification: Sending data back to app id [app] port [-1] client id[@ipc.99]\n"))
        << recordedText();
}

TEST_F(PushDelivery, SessionsInTerminateAndSimChangeCountAsRegistered) {
    QuilSession* session = addSession<QuilTerminateState>("app", "@ipc.17");
    pushNotification(makePush(-1));
    EXPECT_EQ(nextReply(), golden("replies_push.txt"));
    session->enterState(std::make_unique<QuilSimChangeState>());
    pushNotification(makePush(-1));
    EXPECT_EQ(nextReply(), golden("replies_push.txt"));
}

TEST_F(PushDelivery, PushForAnUnregisteredSessionIsClosedWithoutANotification) {
    QuilSession* session = addSession("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    EXPECT_EQ(readToEnd(sender), "");
    EXPECT_EQ(session->getPushSocket(" m1"), nullptr);
    EXPECT_EQ(repliesSoFar(), "");
    EXPECT_EQ(fcntl(accepted, F_GETFD), -1);
}

TEST_F(PushDelivery, PushWithoutAConnectionForAnUnregisteredSessionIsDropped) {
    QuilSession* session = addSession("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    ASSERT_EQ(session->addPushSocket(" m1", accepted), 1);
    pushNotification(makePush(-1));
    EXPECT_EQ(repliesSoFar(), "");
    EXPECT_TRUE(isQuiet(sender));  // an older push of the same id is none of its business
}

TEST_F(PushDelivery, PushForAnUnknownApplicationIsLoggedAndClosed) {
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    EXPECT_EQ(readToEnd(sender), "");
    EXPECT_EQ(repliesSoFar(), "");
    EXPECT_EQ(linesOf("push_delivery.cpp"),
              "6 pushNotification: app id[app]\n\n"
              "3 Cannot find [app] in session map\n");
    EXPECT_TRUE(wasLogged(6, "serverIfClose: close returned 0\n")) << recordedText();
}

TEST_F(PushDelivery, PushWithoutAConnectionForAnUnknownApplicationClosesNothing) {
    pushNotification(makePush(-1));
    EXPECT_TRUE(wasLogged(3, "Cannot find [app] in session map"));
    EXPECT_EQ(linesOf("server_if.cpp"), "");
}

TEST_F(PushDelivery, PushWithAnErrorIsLoggedAndClosed) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    auto push = makePush(accepted);
    push->setErrorCode(10109);
    clearRecordedLines();
    pushNotification(std::move(push));
    EXPECT_EQ(readToEnd(sender), "");
    EXPECT_EQ(repliesSoFar(), "");
    EXPECT_EQ(linesOf("push_delivery.cpp"), "5 pushNotification: id[ m1] error code[10109]\n");
}

TEST_F(PushDelivery, PushWithAnErrorAndNoConnectionClosesNothing) {
    auto push = makePush(-1);
    push->setErrorCode(10109);
    pushNotification(std::move(push));
    EXPECT_EQ(linesOf("server_if.cpp"), "");
}

TEST_F(PushDelivery, PushWithANegativeCodeHasNoError) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    auto push = makePush(-1);
    push->setErrorCode(-1);
    pushNotification(std::move(push));
    EXPECT_EQ(nextReply(), golden("replies_push.txt"));
}

TEST_F(PushDelivery, SecondPushOfOneIdLosesItsConnectionAndTheFirstIsKept) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    int first = -1;
    int second = -1;
    const int firstSender = openConnection(&first);
    const int secondSender = openConnection(&second);
    pushNotification(makePush(first));
    pushNotification(makePush(second));
    EXPECT_EQ(readToEnd(secondSender), "");
    EXPECT_TRUE(isQuiet(firstSender));
    EXPECT_EQ(session->getPushSocket(" m1")->getSocket(), first);
}

// The kept connection of the first push must not fall with the second one.
TEST_F(PushDelivery, SecondPushOfOneIdForAnUnregisteredSessionLeavesTheFirstAlone) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    int first = -1;
    int second = -1;
    const int firstSender = openConnection(&first);
    const int secondSender = openConnection(&second);
    pushNotification(makePush(first));
    session->enterState(std::make_unique<QuilCreateState>());
    pushNotification(makePush(second));
    EXPECT_EQ(readToEnd(secondSender), "");
    EXPECT_TRUE(isQuiet(firstSender));
}

TEST_F(PushDelivery, AcceptWritesTheAcknowledgementAndCloses) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    nextReply();
    clearRecordedLines();
    quilAccept("app", " m1", "@ipc.17");
    const std::string answer = readToEnd(sender);
    EXPECT_EQ(answer.substr(0, kAcknowledgementBegin.size()), kAcknowledgementBegin);
    EXPECT_TRUE(answer.ends_with("\n\n\r")) << answer;
    EXPECT_EQ(session->getPushSocket(" m1"), nullptr);
    EXPECT_EQ(repliesSoFar(), "");
    EXPECT_EQ(linesOf("push_delivery.cpp"), "6 quilAccept Called app id [app]\n");
}

TEST_F(PushDelivery, RejectedPushIsClosedWithoutAByte) {
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    nextReply();
    clearRecordedLines();
    quilRejectPush("app", " m1", "@ipc.17");
    EXPECT_EQ(readToEnd(sender), "");
    EXPECT_EQ(session->getPushSocket(" m1"), nullptr);
    EXPECT_EQ(repliesSoFar(), "");
    EXPECT_EQ(linesOf("push_delivery.cpp"), "6 quilRejectPush Called app id [app]\n");
}

TEST_F(PushDelivery, AnswerFromAnotherClientOfTheApplicationCounts) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    quilRejectPush("app", " m1", "@ipc.18");
    EXPECT_EQ(readToEnd(sender), "");
}

TEST_F(PushDelivery, AnswerIsGivenOnce) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    quilAccept("app", " m1", "@ipc.17");
    readToEnd(sender);
    quilAccept("app", " m1", "@ipc.17");
    EXPECT_TRUE(wasLogged(2, "Failed to find pushId[ m1]")) << recordedText();
}

TEST_F(PushDelivery, UnknownPushIdIsLoggedAndChangesNothing) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    nextReply();
    for (const char* id : {"m1", "", " m1 "}) {
        quilAccept("app", id, "@ipc.17");
        quilRejectPush("app", id, "@ipc.17");
        EXPECT_EQ(countRecorded(2, std::string("Failed to find pushId[") + id + "]"), 2);
    }
    EXPECT_TRUE(isQuiet(sender));
    EXPECT_EQ(repliesSoFar(), "");
}

TEST_F(PushDelivery, AnswersForAnUnknownApplicationShareOneText) {
    quilAccept("app", "m1", "@ipc.17");
    quilRejectPush("app", "m1", "@ipc.17");
    EXPECT_EQ(linesOf("push_delivery.cpp"),
              "6 quilAccept Called app id [app]\n"
              "3 quilAccept: session for app id [app] not found.\n"
              "6 quilRejectPush Called app id [app]\n"
              "3 quilAccept: session for app id [app] not found.\n");
    EXPECT_EQ(repliesSoFar(), "");
}
