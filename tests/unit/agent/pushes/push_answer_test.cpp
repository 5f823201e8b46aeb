// The application's answer to a push on its way back to the sender.

#include "agent/pushes/push_answer.hpp"

#include <string>

#include "agent/pushes/push_delivery.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/unit/agent/pushes/push_delivery_fixture.hpp"

namespace {

using PushAnswer = PushDeliveryTest;

const std::string kAcknowledgementBegin = "HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:";

}  // namespace

TEST_F(PushAnswer, AcceptWritesTheAcknowledgementAndCloses) {
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
    EXPECT_EQ(linesOf("push_answer.cpp"), "6 quilAccept Called app id [app]\n");
}

TEST_F(PushAnswer, RejectedPushIsClosedWithoutAByte) {
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
    EXPECT_EQ(linesOf("push_answer.cpp"), "6 quilRejectPush Called app id [app]\n");
}

TEST_F(PushAnswer, AnswerFromAnotherClientOfTheApplicationCounts) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    quilRejectPush("app", " m1", "@ipc.18");
    EXPECT_EQ(readToEnd(sender), "");
}

TEST_F(PushAnswer, AnswerIsGivenOnce) {
    addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    pushNotification(makePush(accepted));
    quilAccept("app", " m1", "@ipc.17");
    readToEnd(sender);
    quilAccept("app", " m1", "@ipc.17");
    EXPECT_TRUE(wasLogged(2, "Failed to find pushId[ m1]")) << recordedText();
}

TEST_F(PushAnswer, UnknownPushIdIsLoggedAndChangesNothing) {
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

TEST_F(PushAnswer, AnswersForAnUnknownApplicationShareOneText) {
    quilAccept("app", "m1", "@ipc.17");
    quilRejectPush("app", "m1", "@ipc.17");
    EXPECT_EQ(linesOf("push_answer.cpp"),
              "6 quilAccept Called app id [app]\n"
              "3 quilAccept: session for app id [app] not found.\n"
              "6 quilRejectPush Called app id [app]\n"
              "3 quilAccept: session for app id [app] not found.\n");
    EXPECT_EQ(repliesSoFar(), "");
}
