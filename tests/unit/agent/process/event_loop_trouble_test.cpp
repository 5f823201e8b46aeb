// The loop in trouble: a wait that fails, an object service that goes, want of memory and
// descriptors, senders that say nothing, and more messages than can be handled.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/sessions/port_changes.hpp"
#include "agent/support/log.hpp"
#include "agent/support/wake_up.hpp"
#include "tests/support/file_limit.hpp"
#include "tests/unit/agent/process/event_loop_fixture.hpp"

namespace {

constexpr const char* kSaved = "/pps/services/push/quilagent";

}  // namespace

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
