// What the loop watches, and in which order it serves what came.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "agent/support/wake_up.hpp"
#include "tests/unit/agent/process/event_loop_fixture.hpp"

namespace {

std::string fds(const std::string& head, const QuilPort& port) {
    return head + std::to_string(port.getPort()) + "] fd[" + std::to_string(port.getSocket()) +
           "]\n";
}

}  // namespace

TEST_F(EventLoop, StartShowsThePortsThenTheSimPassThenTheFirstSet) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    const QuilPort& port = listener.session->getPort();
    expectLines(
        "5 quilAgentLoop: All the valid ports are\n\n"
        "6 ports->size() = 1\n" +
        fds("5 quilAgentLoop: port [", port) +
        "5 Entering quilAgentLoop...\n"
        "5 quilAgentLoop: Waiting (select)...\n" +
        fds("5 quilAgentLoop: setting rfds: port [", port));
    EXPECT_TRUE(wasLogged(6, "processSimChange: is same sim"));
}

TEST_F(EventLoop, PushReachesTheApplicationAndTheListIsTakenAnew) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    const QuilPort& port = listener.session->getPort();
    {
        // The push is to be there when the loop accepts its connection.
        const LogGate gate(kWaiting);
        wakeMainLoop();
        ASSERT_TRUE(gate.waitUntilHeld());
        clearRecordedLines();
        sendPush(listener.port);
    }
    EXPECT_EQ(nextReply(), kNotification);
    expectLines(
        fds("5 quilAgentLoop: setting rfds: port [", port) + "5 " + receiving(listener, "app") +
        "\n" + fds("5 quilAgentLoop: serverIfProcessData port [", port) +
        "5 quilAgentLoop: All the valid ports are\n\n" + fds("5 quilAgentLoop 2: port[", port) +
        "5 \n\n\n"
        "5 quilAgentLoop: Waiting (select)...\n" +
        fds("5 quilAgentLoop: setting rfds: port [", port));
}

TEST_F(EventLoop, ClientRequestIsReadOncePerPass) {
    startLoop();
    clearRecordedLines();
    sendRequest(golden("requests_create_session.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
    ASSERT_TRUE(waitForPasses(1));
    EXPECT_EQ(linesOf("event_loop.cpp"),
              "6 Client if event.\n\n"
              "5 quilAgentLoop: All the valid ports are\n\n"
              "5 \n\n\n"
              "5 quilAgentLoop: Waiting (select)...\n");
}

TEST_F(EventLoop, WakeUpIsReadAndIgnored) {
    startLoop();
    clearRecordedLines();
    wakeMainLoop();
    ASSERT_TRUE(waitForPasses(1));
    EXPECT_EQ(linesOf("event_loop.cpp"),
              "6 Ignore\n\n"
              "5 quilAgentLoop: All the valid ports are\n\n"
              "5 \n\n\n"
              "5 quilAgentLoop: Waiting (select)...\n");
}

TEST_F(EventLoop, OnePassServesPortsThenTheClientThenTheWakeUp) {
    const Listener first = addListener("a", "@ipc.17");
    const Listener second = addListener("b", "@ipc.17");
    startLoop();
    auto held = hold(first, "a");
    sendPush(second.port);
    sendPush(first.port);
    sendRequest(golden("requests_client_connected.txt"));
    wakeMainLoop();
    clearRecordedLines();
    held.reset();
    ASSERT_TRUE(waitForPasses(2));
    const std::string text = linesOf("event_loop.cpp");
    const std::size_t pass = text.find("5 " + kWaiting);
    const std::size_t a = text.find(receiving(first, "a"), pass);
    const std::size_t b = text.find(receiving(second, "b"), pass);
    const std::size_t client = text.find("6 Client if event.", pass);
    const std::size_t wakeUp = text.find("6 Ignore", pass);
    const std::size_t next = text.find("5 quilAgentLoop: All the valid ports are", pass);
    ASSERT_NE(a, std::string::npos) << text;
    EXPECT_LT(a, b) << text;
    EXPECT_LT(b, client) << text;
    EXPECT_LT(client, wakeUp) << text;
    EXPECT_LT(wakeUp, next) << text;
    ASSERT_NE(next, std::string::npos) << text;
    EXPECT_LT(next, text.find("5 " + kWaiting, pass + 1)) << text;
}

TEST_F(EventLoop, ThreeWakeUpsMakeThreePassesOfOneByte) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    auto held = hold(listener, "app");
    wakeMainLoop();
    wakeMainLoop();
    wakeMainLoop();
    clearRecordedLines();
    held.reset();
    // The pass of the push, then one per byte; the fifth wait finds nothing.
    ASSERT_TRUE(waitForPasses(4));
    EXPECT_EQ(countRecorded(6, "Ignore\n"), 3) << recordedText();
    EXPECT_FALSE(waitUntil([] { return passes() > 4; }, 0.2)) << recordedText();
    EXPECT_EQ(countRecorded(6, "Ignore\n"), 3);
}

TEST_F(EventLoop, SeveralRequestsAreReadOnePerPass) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    auto held = hold(listener, "app");
    sendRequest(golden("requests_client_connected.txt"));
    sendRequest(golden("requests_client_connected.txt"));
    clearRecordedLines();
    held.reset();
    ASSERT_TRUE(waitForPasses(3));
    EXPECT_EQ(countRecorded(6, "Client if event.\n"), 2) << recordedText();
}

TEST_F(EventLoop, NewPortIsWatchedAfterAWakeUp) {
    startLoop();
    const Listener listener = addListener("app", "@ipc.17");
    sendPush(listener.port);
    EXPECT_EQ(nextReply(0.1), "<nothing>");
    wakeMainLoop();
    EXPECT_EQ(nextReply(), kNotification);
}

TEST_F(EventLoop, NewPortIsWatchedAfterAClientRequest) {
    startLoop();
    const Listener listener = addListener("app", "@ipc.17");
    sendPush(listener.port);
    EXPECT_EQ(nextReply(0.1), "<nothing>");
    sendRequest(golden("requests_client_connected.txt"));
    EXPECT_EQ(nextReply(), kNotification);
}

TEST_F(EventLoop, PortOfAnUnregisteredSessionIsWatchedNoMore) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    listener.session->enterState(std::make_unique<QuilCreateState>());
    wakeMainLoop();
    ASSERT_TRUE(waitForPasses(2));
    clearRecordedLines();
    wakeMainLoop();
    ASSERT_TRUE(waitForPasses(1));
    wakeMainLoop();
    ASSERT_TRUE(waitForPasses(2));
    EXPECT_EQ(recordedText().find("setting rfds"), std::string::npos) << recordedText();
}

TEST_F(EventLoop, PortThatStoppedDuringTheWaitIsNotServed) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    clearRecordedLines();
    // The wait still has the descriptor, and sees it readable; the port no longer does.
    listener.session->getPort().setSocket(-1);
    sendPush(listener.port);
    ASSERT_TRUE(waitForPasses(1));
    EXPECT_EQ(recordedText().find("receiving data"), std::string::npos) << recordedText();
    sendRequest(golden("requests_create_session.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
}

TEST_F(EventLoop, PortAtDescriptor255IsWatched) {
    const Listener listener = addListener("app", "@ipc.17", 255);
    startLoop();
    sendPush(listener.port);
    EXPECT_EQ(nextReply(), kNotification);
}

TEST_F(EventLoop, PortAtDescriptor256IsShownButSkipped) {
    const Listener listener = addListener("app", "@ipc.17", 256);
    startLoop();
    EXPECT_TRUE(waitForLogged(
        5, "quilAgentLoop: setting rfds: port [" + std::to_string(listener.port) + "] fd[256]"))
        << recordedText();
    sendPush(listener.port);
    EXPECT_EQ(nextReply(0.2), "<nothing>");
    EXPECT_EQ(passes(), 1);
    sendRequest(golden("requests_create_session.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
}

TEST_F(EventLoop, PortAtDescriptor0IsSkipped) {
    const Listener listener = addListener("app", "@ipc.17", 0);
    startLoop();
    sendPush(listener.port);
    EXPECT_EQ(nextReply(0.2), "<nothing>");
    EXPECT_EQ(passes(), 1);
}

TEST_F(EventLoop, PortThatDoesNotListenIsSkippedAndNoError) {
    addSession<QuilRegisterState>("app", "@ipc.17")->getPort().setPort(5000);
    startLoop();
    EXPECT_TRUE(wasLogged(5, "quilAgentLoop: port [5000] fd[-1]")) << recordedText();
    EXPECT_TRUE(waitForLogged(5, "quilAgentLoop: setting rfds: port [5000] fd[-1]"));
    sendRequest(golden("requests_create_session.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
    EXPECT_EQ(recordedText().find("Select error"), std::string::npos) << recordedText();
}

// A push waits on the listening socket, and the processor has nothing to do with it.
TEST_F(EventLoop, PortThatWaitsForItsApplicationCostsNoPasses) {
    const Listener listener = addListener("app", "");
    startLoop();
    sendPush(listener.port);
    ASSERT_TRUE(waitForPasses(2));
    EXPECT_TRUE(wasLogged(3, "serverIfProcessData: getClientObjectId is empty")) << recordedText();
    EXPECT_FALSE(waitUntil([] { return passes() > 2; }, 0.3)) << recordedText();
    EXPECT_EQ(countRecorded(5, receiving(listener, "app")), 1);
}

TEST_F(EventLoop, PortThatWaitedIsServedOnceItsApplicationIsThere) {
    const Listener listener = addListener("com.example.news", "");
    startLoop();
    sendPush(listener.port);
    ASSERT_TRUE(waitForPasses(2));
    sendRequest(golden("requests_create_session.txt"));
    const std::string first = nextReply();
    const std::string second = nextReply();
    EXPECT_TRUE((first == golden("replies_session_created.txt") && second == kNotification) ||
                (second == golden("replies_session_created.txt") && first == kNotification))
        << first << second;
}

TEST_F(EventLoop, OtherPortsAreServedWhileOneWaitsForItsApplication) {
    const Listener waiting = addListener("a", "");
    const Listener other = addListener("b", "@ipc.17");
    startLoop();
    sendPush(waiting.port);
    ASSERT_TRUE(waitForPasses(2));
    sendPush(other.port);
    EXPECT_EQ(nextReply(), kNotification);
}
