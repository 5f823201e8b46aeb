// A push on its way to the application. The sender's connection is one end of a socket pair here.

#include "agent/pushes/push_delivery.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>

#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/unit/agent/pushes/push_delivery_fixture.hpp"

namespace {

using PushDelivery = PushDeliveryTest;

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
    EXPECT_EQ(linesOf("connection.cpp"), "");
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
    EXPECT_EQ(linesOf("connection.cpp"), "");
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

// Between the reader and the session nobody else knows the connection.
TEST_F(PushDelivery, PushThatMemoryRunsOutForIsClosed) {
    constexpr std::size_t kCopyBytes = 3001;
    const std::string longName(kCopyBytes - 1, 'x');
    for (const bool isClientLong : {false, true}) {
        addSession<QuilRegisterState>(isClientLong ? "short" : longName,
                                      isClientLong ? longName : "@ipc.17");
        int accepted = -1;
        const int sender = openConnection(&accepted);
        auto push = std::make_unique<QuilPushMessage>(isClientLong ? "short" : longName, "@ipc.17");
        push->setSocket(accepted);
        {
            const FailingAllocations noCopies(kCopyBytes, kCopyBytes);
            EXPECT_THROW(pushNotification(std::move(push)), std::bad_alloc);
        }
        EXPECT_EQ(readToEnd(sender), "");
        EXPECT_EQ(fcntl(accepted, F_GETFD), -1);
    }
}

// Nobody will ever answer it.
TEST_F(PushDelivery, KeptPushThatMemoryRunsOutForIsClosedToo) {
    constexpr std::size_t kDataBytes = 9000;
    QuilSession* session = addSession<QuilRegisterState>("app", "@ipc.17");
    int accepted = -1;
    const int sender = openConnection(&accepted);
    const std::string bytes = "POST /x HTTP/1.1\r\nContent-Length: " + std::to_string(kDataBytes) +
                              "\r\nPush-Message-ID: m1\r\n\r\n" + std::string(kDataBytes, 'x');
    auto push = std::make_unique<QuilPushMessage>("app", "@ipc.17");
    push->setPayload(bytes.data(), static_cast<int>(bytes.size()));
    push->createData();
    push->setSocket(accepted);
    {
        const FailingAllocations noNotification(kDataBytes, 10 * kDataBytes);
        EXPECT_THROW(pushNotification(std::move(push)), std::bad_alloc);
    }
    EXPECT_EQ(repliesSoFar(), "");
    EXPECT_EQ(session->getPushSocket(" m1"), nullptr);
    EXPECT_EQ(readToEnd(sender), "");
}
