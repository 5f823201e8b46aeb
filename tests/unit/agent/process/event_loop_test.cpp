// The running loop: on a thread of its own, against a real listening socket, with the log as its
// trace.

#include "agent/process/event_loop.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/clients/client_object.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/requests/permissions.hpp"
#include "agent/sessions/port_changes.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "agent/support/log.hpp"
#include "agent/support/wake_up.hpp"
#include "tests/support/agent/clients_fixture.hpp"
#include "tests/support/file_limit.hpp"

namespace {

constexpr const char* kSaved = "/pps/services/push/quilagent";

const std::string kWaiting = "quilAgentLoop: Waiting (select)...";
const std::string kPush = "POST /x\r\nContent-Length: 5\r\nPush-Message-ID:m1\r\n\r\nhello";
const std::string kNotification =
    "@ipc.17\nmsg::pushNotification\nid::m1\ndat:json:{\"appLevelAck\":1,\"data\":\"aGVsbG8=\","
    "\"httpHeaders\":{\"Content-Length\":\" 5\",\"Push-Message-ID\":\"m1\"}}\n";

class EventLoop : public ClientsTest {
  protected:
    // Sessions that exist by now are the ones that it starts with.
    void startLoop() {
        prepareObject();
        ASSERT_EQ(quilAgentInit(), 1);
        replaceDescriptor();
        // As the served object: a read without a message does not wait.
        fcntl(clientDescriptor(), F_SETFL, O_RDWR | O_NONBLOCK);
        QuilDataManager::getInstance();
        QuilPermissions::getInstance();
        clearRecordedLines();
        std::thread loop(quilAgentLoop);
        m_thread = loop.native_handle();
        loop.detach();
        ASSERT_TRUE(waitForPasses(1)) << recordedText();
    }

    // A pass counts from its wait on.
    static int passes() { return countRecorded(5, kWaiting); }
    static bool waitForPasses(int count) {
        return waitUntil([=] { return passes() >= count; });
    }

    struct Listener {
        QuilSession* session;
        int port;
    };

    // A registered session that listens, at the descriptor asked for where one is given.
    static Listener addListener(const std::string& appId, const std::string& clientId,
                                int descriptor = -1) {
        Listener made{addSession<QuilRegisterState>(appId, clientId), 0};
        int listener = listenAnywhere(&made.port);
        if (descriptor != -1) {
            EXPECT_EQ(dup3(listener, descriptor, O_CLOEXEC), descriptor);
            close(listener);
            listener = descriptor;
        }
        made.session->getPort().setSocket(listener);
        made.session->getPort().setPort(made.port);
        return made;
    }

    static int sendPush(int port) {
        const int sender = connectTo(port);
        EXPECT_EQ(send(sender, kPush.data(), kPush.size(), 0), static_cast<ssize_t>(kPush.size()));
        return sender;
    }

    static std::string receiving(const Listener& listener, const std::string& appId) {
        return "quilAgentLoop: Port " + std::to_string(listener.port) +
               " receiving data for App id [" + appId + "]";
    }

    // Holds the loop at the first push of that port until the gate is gone.
    std::unique_ptr<LogGate> hold(const Listener& listener, const std::string& appId) {
        auto gate = std::make_unique<LogGate>(receiving(listener, appId));
        sendPush(listener.port);
        EXPECT_TRUE(gate->waitUntilHeld());
        return gate;
    }

    // Waits for these lines of event_loop.cpp, and no others.
    static void expectLines(const std::string& lines) {
        waitUntil([&] { return linesOf("event_loop.cpp") == lines; });
        EXPECT_EQ(linesOf("event_loop.cpp"), lines);
    }

    pthread_t m_thread{};
};

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

TEST_F(EventLoop, InterruptedSelectIsLoggedAndSurvived) {
    const Listener listener = addListener("app", "@ipc.17");
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    startLoop();
    // The first pass says that it waits a little before it does.
    ASSERT_TRUE(waitUntil([this] {
        pthread_kill(m_thread, SIGUSR1);
        return wasLogged(3, "quilAgentLoop: Select error [4] [Interrupted system call]");
    })) << recordedText();
    // The set stays as it was built: everything in it is tried, and has nothing to give.
    ASSERT_TRUE(waitForLogged(
        3,
        "serverIfProcessData: Accept failed with errno[11] error[Resource temporarily "
        "unavailable]"))
        << recordedText();
    ASSERT_TRUE(waitForLogged(3, "clientPPSMessageGet: Unable to read push PPS object."));
    ASSERT_TRUE(waitForLogged(6, "Ignore\n"));
    sendPush(listener.port);
    EXPECT_EQ(nextReply(), kNotification);
}

TEST_F(EventLoop, SelectOnAClosedDescriptorIsLoggedAndSurvived) {
    const Listener listener = addListener("app", "@ipc.17", 200);
    startLoop();
    const int number = listener.session->getPort().getSocket();
    const int spare = fcntl(number, F_DUPFD_CLOEXEC, 3);
    {
        const QuilLock lock(portSocketLock());
        close(number);
    }
    notePortChange();  // as whoever closes one does
    wakeMainLoop();
    EXPECT_TRUE(waitForLogged(3, "quilAgentLoop: Select error [9] [Bad file descriptor]"))
        << recordedText();
    {
        const QuilLock lock(portSocketLock());
        ASSERT_EQ(dup3(spare, number, O_CLOEXEC), number);
    }
    sendPush(listener.port);
    EXPECT_EQ(nextReply(), kNotification);
}

// The object service is gone: a read of its object fails.
TEST_F(EventLoop, LostObjectServiceIsToldOnceAndAwaitedQuietly) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    const std::string server = path("/pps/services/push/ipc?server");
    std::filesystem::remove(server);
    std::filesystem::create_directory(server);  // which nobody can open as an object
    clearRecordedLines();
    breakConnection();
    const std::string lost =
        "quilAgentLoop: object service lost: errno[104] error[Connection reset by peer]";
    ASSERT_TRUE(waitForLogged(3, lost)) << recordedText();
    EXPECT_TRUE(waitUntil([&] { return listener.session->getClientObjectId().empty(); }));
    // Nothing is taken off the ports, and nothing more is said.
    const std::string told = recordedText();
    sendPush(listener.port);
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    EXPECT_EQ(recordedText(), told);

    std::filesystem::remove(server);
    const auto begin = std::chrono::steady_clock::now();
    writeFile("/pps/services/push/ipc?server", "");
    ASSERT_TRUE(waitForLogged(4, "quilAgentLoop: object service is back")) << recordedText();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
    replaceDescriptor();
    EXPECT_TRUE(waitUntil([this] {
        const std::string size = std::to_string(readFile(kSaved).size());
        return wasLogged(5, "Save: Wrote " + size + " bytes to pps.");
    })) << recordedText();
    EXPECT_EQ(countRecorded(3, lost), 1);
    // The application is back, and gets what waited for it.
    sendRequest(
        "@ipc.3\nmsg::createSession\nid::1\n"
        "dat:json:{\"providerApplicationId\":\"app\"}\n");
    EXPECT_NE(nextReply().find("onCreateSessionComplete"), std::string::npos);
    EXPECT_NE(nextReply().find("pushNotification"), std::string::npos);
}

TEST_F(EventLoop, EmptyReadOfTheClientObjectDoesNotPause) {
    startLoop();
    shutdown(m_client, SHUT_RDWR);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitForPasses(60));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(EventLoop, ExceptionWhileAPushIsReadIsLoggedAndSurvived) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    clearRecordedLines();
    const std::string large = "POST /x\r\n\r\n" + std::string(9000, 'x');
    {
        const FailingAllocations noPush(9000, 20000);
        EXPECT_GT(send(connectTo(listener.port), large.data(), large.size(), 0), 0);
        ASSERT_TRUE(waitForLogged(
            3, "quilAgentLoop: exception occurred when trying to serverIfProcessData"));
        ASSERT_TRUE(waitForPasses(1));
    }
    EXPECT_EQ(nextReply(0), "<nothing>");
    EXPECT_TRUE(wasLogged(5, "quilAgentLoop: serverIfProcessData port [" +
                                 std::to_string(listener.port) + "] fd[" +
                                 std::to_string(listener.session->getPort().getSocket()) + "]"))
        << recordedText();
    sendPush(listener.port);
    EXPECT_EQ(nextReply(), kNotification);
}

TEST_F(EventLoop, ExceptionWhileARequestIsProcessedIsLoggedAndSurvived) {
    startLoop();
    const std::string text = "@ipc.17\nmsg::createSession\nid::" + std::string(6000, 'x');
    {
        const FailingAllocations noCopyOfTheText(6000, 8300);
        sendRequest(text);
        ASSERT_TRUE(waitForLogged(
            3, "quilAgentLoop: exception occurred when trying to process a client request"));
    }
    sendRequest(golden("requests_create_session.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
}

TEST_F(EventLoop, ExceptionWhileTheListIsTakenIsLoggedAndTheNextPassHasItAgain) {
    for (int i = 0; i < 36; ++i) {
        addSession<QuilRegisterState>("z" + std::to_string(i), "")->getPort().setPort(5000);
    }
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    {
        const FailingAllocations noCopyOfTheList(37 * sizeof(void*), 37 * sizeof(void*));
        wakeMainLoop();
        ASSERT_TRUE(
            waitForLogged(3, "quilAgentLoop: exception occurred when trying to get all ports"));
        ASSERT_TRUE(waitForPasses(2));
    }
    wakeMainLoop();
    sendPush(listener.port);
    EXPECT_EQ(nextReply(), kNotification);
}

TEST_F(EventLoop, EchoOfAnIdleLoopIsComplete) {
    writeFile("/echo", "");
    const int terminal = dup(1);
    bufferLogEcho();
    const int file = open(path("/echo").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(file, 1), 1);
    startLoop();
    ASSERT_TRUE(waitUntil([this] { return readFile("/echo").find(kWaiting) != std::string::npos; }))
        << readFile("/echo");
    // Once more, as the handler thread may have shown the first one along with its own lines.
    wakeMainLoop();
    EXPECT_TRUE(waitUntil([this] {
        const std::string echo = readFile("/echo");
        return echo.find(kWaiting) != echo.rfind(kWaiting);
    })) << readFile("/echo");
    dup2(terminal, 1);
}

TEST_F(EventLoop, WakeUpsBeyondWhatThePipeHoldsFailWithALineAndNeverBlock) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    auto held = hold(listener, "app");
    for (int i = 0; i < 70000 && !wasLogged(6, "Failed to write pipe!!\n"); i += 1000) {
        for (int j = 0; j < 1000; ++j) {
            wakeMainLoop();
        }
    }
    EXPECT_TRUE(wasLogged(6, "Failed to write pipe!!\n"));
    held.reset();
    EXPECT_EQ(nextReply(), kNotification);
}

TEST_F(EventLoop, SilentSendersDelayNeitherRequestsNorPushes) {
    const Listener crowded = addListener("a", "@ipc.17");
    const Listener other = addListener("b", "@ipc.17");
    startLoop();
    std::vector<int> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(connectTo(crowded.port));
    }
    const auto begin = std::chrono::steady_clock::now();
    sendRequest(golden("requests_create_session.txt"));
    EXPECT_NE(nextReply().find("onCreateSessionComplete"), std::string::npos);
    sendPush(other.port);
    EXPECT_NE(nextReply().find("pushNotification"), std::string::npos);
    sendPush(crowded.port);
    EXPECT_NE(nextReply().find("pushNotification"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    for (const int sender : silent) {
        EXPECT_TRUE(isQuiet(sender));
    }
}

TEST_F(EventLoop, PushWhoseBytesComeLaterIsDelivered) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    const int sender = connectTo(listener.port);
    // The header block with the first byte of the data, then byte by byte.
    const std::size_t first = kPush.find("\r\n\r\n") + 5;
    EXPECT_EQ(send(sender, kPush.data(), first, 0), static_cast<ssize_t>(first));
    for (std::size_t at = first; at < kPush.size(); ++at) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(send(sender, &kPush[at], 1, 0), 1);
    }
    EXPECT_EQ(nextReply(), kNotification);
}

// Two senders wait on two ports, and pushes have no descriptor left.
// The connection is kept for the answer, and is nothing that the loop has to see to any more.
TEST_F(EventLoop, SenderThatHangsUpOnAPushThatWasSetAsideCostsNoPasses) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    const int sender = connectTo(listener.port);
    send(sender, kPush.data(), kPush.size() - 1, 0);
    ASSERT_TRUE(waitForLogged(5, "serverIfProcessData 1: recved [" +
                                     std::to_string(kPush.size() - 1) + "] bytes of data"));
    send(sender, kPush.data() + kPush.size() - 1, 1, 0);
    EXPECT_EQ(nextReply(), kNotification);
    close(sender);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const int before = passes();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LE(passes(), before + 1);
}

TEST_F(EventLoop, WantOfDescriptorsCostsFewPassesAndRequestsGoOn) {
    const Listener first = addListener("a", "@ipc.17");
    const Listener second = addListener("b", "@ipc.17");
    startLoop();
    const FileLimit limit(400);
    std::vector<int> taken;
    for (int number = fcntl(0, F_DUPFD_CLOEXEC, 100); number != -1;
         number = fcntl(0, F_DUPFD_CLOEXEC, 100)) {
        taken.push_back(number);
    }
    clearRecordedLines();
    const int sender = sendPush(first.port);
    sendPush(second.port);
    const std::string noRoom =
        "serverIfProcessData: Accept failed with errno[24] error[Too many open files]";
    ASSERT_TRUE(waitForLogged(3, noRoom));
    const int before = passes();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LE(passes(), before + 8) << "it does not wait";
    EXPECT_GE(passes(), before + 2) << "it does not look again";
    EXPECT_EQ(countRecorded(3, noRoom), 1);
    sendRequest(golden("requests_create_session.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
    EXPECT_TRUE(isQuiet(sender));
    for (const int number : taken) {
        close(number);
    }
    EXPECT_EQ(nextReply(), kNotification);
    EXPECT_EQ(countRecorded(3, noRoom), 1);
}

// The handler thread is held, so everything queues up.
TEST_F(EventLoop, PushWaitsWithItsSenderWhileManyMessagesWait) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    auto gate = std::make_unique<LogGate>("5 received");
    // Counted as pushes, and too odd to be delivered.
    for (int i = 0; i < 300; ++i) {
        queue->push(std::make_unique<QuilMessageNode>(
            MESSAGE_PUSH, std::make_unique<QuilResponseMessage>("app", "r", "@ipc.99")));
    }
    ASSERT_TRUE(gate->waitUntilHeld());
    wakeMainLoop();
    ASSERT_TRUE(waitForPasses(2));
    const int before = passes();
    sendPush(listener.port);
    EXPECT_FALSE(waitUntil([before] { return passes() > before; }, 0.1)) << "the port was watched";
    // Requests are still read.
    sendRequest(golden("requests_client_connected.txt"));
    EXPECT_TRUE(waitForLogged(5, "----------------- PPS_CREATED------------------------------"));
    gate.reset();
    EXPECT_TRUE(waitForLogged(5, receiving(listener, "app")));
}

// Pushes are held back, and meanwhile the object service is gone too: that is one time, not two.
TEST_F(EventLoop, TimeInWhichPushesCouldNotBeSeenToIsAddedOnce) {
    writeFile("/etc/quilagent.conf", "push-timeout 1\n");
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    const int sender = connectTo(listener.port);
    ASSERT_TRUE(waitForLogged(5, receiving(listener, "app")));
    const auto begin = std::chrono::steady_clock::now();
    const auto seconds = [begin] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    auto gate = std::make_unique<LogGate>("4 received");
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    queue->push(std::make_unique<QuilMessageNode>(
        4, std::make_unique<QuilResponseMessage>("app", "r", "@ipc.99")));
    for (int i = 0; i < 300; ++i) {  // pushes, which leave the client object in the set
        queue->push(std::make_unique<QuilMessageNode>(
            5, std::make_unique<QuilPushMessage>("app", "@ipc.99")));
    }
    ASSERT_TRUE(gate->waitUntilHeld());
    const int before = passes();
    wakeMainLoop();
    ASSERT_TRUE(waitForPasses(before + 1));
    const std::string server = path("/pps/services/push/ipc?server");
    std::filesystem::remove(server);
    std::filesystem::create_directory(server);
    breakConnection();
    ASSERT_TRUE(waitForLogged(
        3, "quilAgentLoop: object service lost: errno[104] error[Connection reset by peer]"));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    std::filesystem::remove(server);
    writeFile("/pps/services/push/ipc?server", "");
    ASSERT_TRUE(waitForLogged(4, "quilAgentLoop: object service is back"));
    replaceDescriptor();
    sendRequest(golden("requests_client_connected.txt"));  // it may be reading already
    gate.reset();
    const double held = seconds();
    EXPECT_TRUE(waitForLogged(
        3, "serverIfProcessData: push for app id [app] not complete after 1 seconds"));
    EXPECT_GE(seconds(), held + 0.5) << "it had no more time";
    EXPECT_LT(seconds(), held + 2) << "it had the time twice";
    close(sender);
}

TEST_F(EventLoop, RequestWaitsWithTheObjectServiceWhileOthersWait) {
    const Listener listener = addListener("app", "@ipc.17");
    startLoop();
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    auto gate = std::make_unique<LogGate>("4 received");
    for (int i = 0; i < 20; ++i) {
        queue->push(std::make_unique<QuilMessageNode>(
            MESSAGE_RESPONSE, std::make_unique<QuilResponseMessage>("app", "r", "@ipc.99")));
    }
    ASSERT_TRUE(gate->waitUntilHeld());
    wakeMainLoop();
    ASSERT_TRUE(waitForPasses(2));
    const int before = passes();
    sendRequest(golden("requests_client_connected.txt"));
    EXPECT_FALSE(waitUntil([before] { return passes() > before; }, 0.1)) << "it was read";
    // Pushes still come in.
    sendPush(listener.port);
    EXPECT_TRUE(waitForLogged(5, receiving(listener, "app")));
    gate.reset();
    EXPECT_TRUE(waitForLogged(5, "----------------- PPS_CREATED------------------------------"));
}
