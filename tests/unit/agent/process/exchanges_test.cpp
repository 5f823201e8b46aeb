// Exchanges with push data servers beside the handler thread: one application's order is kept, and
// nobody waits for another's server.

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/clients/client_object.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/process/exchanges.hpp"
#include "agent/process/handler_thread.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/base_state.hpp"
#include "agent/support/service_life.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/loopback.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

// A push data server that says nothing until it is told to, and then refuses everybody with rc=7.
class HoldingServer {
  public:
    HoldingServer() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        bindLoopback(m_listener);
        listen(m_listener, 100);
        m_acceptor = std::thread([this] { acceptAll(); });
    }
    ~HoldingServer() {
        release();
        shutdown(m_listener, SHUT_RDWR);
        m_acceptor.join();
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        close(m_listener);
    }
    HoldingServer(const HoldingServer&) = delete;
    HoldingServer& operator=(const HoldingServer&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(boundPort(m_listener)); }

    // Lets those that wait go, and all that come.
    void release() {
        const std::lock_guard lock(m_lock);
        m_isReleased = true;
        m_changed.notify_all();
    }
    // Exchanges that wait for an answer now, and the most there have been.
    int countHeld() {
        const std::lock_guard lock(m_lock);
        return m_held;
    }
    int countMostHeld() {
        const std::lock_guard lock(m_lock);
        return m_mostHeld;
    }

  private:
    void acceptAll() {
        for (;;) {
            const int connection = accept(m_listener, nullptr, nullptr);
            if (connection == -1) {
                return;
            }
            m_threads.emplace_back([this, connection] { serve(connection); });
        }
    }
    void serve(int connection) {
        std::string request;
        char byte = 0;
        while (request.find("\r\n\r\n") == std::string::npos && read(connection, &byte, 1) == 1) {
            request += byte;
        }
        {
            std::unique_lock lock(m_lock);
            ++m_held;
            m_mostHeld = std::max(m_mostHeld, m_held);
            m_changed.wait(lock, [this] { return m_isReleased; });
            --m_held;
        }
        const std::string answer =
            "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nConnection: close\r\n\r\nrc=7";
        static_cast<void>(!write(connection, answer.data(), answer.size()));
        close(connection);
    }

    int m_listener;
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_isReleased = false;
    int m_held = 0;
    int m_mostHeld = 0;
    std::vector<std::thread> m_threads;  // the acceptor's, until it has ended
    std::thread m_acceptor;
};

// An instrumented program takes its time for so many lines.
constexpr double kLongSeconds = 60;

int countThreads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

class Exchanges : public SessionsTest {
  protected:
    Exchanges() : m_replies(m_platform.makeFifo("/pps/services/push/ipc?server")) {
        m_platform.write("/pps/services/push/ipc", "");
        m_platform.write("/etc/quilagent.conf", "proxy-port 0\n");
        EXPECT_GE(clientIfInit(), 0);
        clearRecordedLines();
        EXPECT_EQ(msgHandlerInit(), 1);
        m_threads = countThreads();
    }
    // The test's servers have let everybody go. A thread that still has the answer in hand at the
    // process's end would show as a leak.
    void TearDown() override {
        EXPECT_TRUE(waitUntil([this] { return countThreads() == m_threads; })) << countThreads();
    }

    static void addSession(const std::string& appId) {
        auto session = std::make_unique<QuilSession>(appId, "@ipc." + appId);
        QuilSessionManager::getInstance()->addSession(session);
    }
    static void push(int type, std::unique_ptr<QuilBaseMessage> message) {
        QuilMessageManager::getInstance()->push(
            std::make_unique<QuilMessageNode>(type, std::move(message)));
    }
    // A registration; its application's session is made first.
    static void beginExchange(const std::string& appId, const std::string& url,
                              const std::string& id = "c") {
        addSession(appId);
        push(7, std::make_unique<QuilServerRegMessage>(appId, id, "@ipc." + appId, url));
    }
    static void pushReply(const std::string& appId, const std::string& id) {
        push(4, std::make_unique<QuilResponseMessage>(appId, id, "@ipc." + appId));
    }
    // What applications have been told so far, as "CLIENT:ID ...".
    const std::string& told() {
        m_text += readAvailable(m_replies);
        for (std::size_t end = m_text.find('\n', m_parsed); end != std::string::npos;
             end = m_text.find('\n', m_parsed)) {
            const std::string line = m_text.substr(m_parsed, end - m_parsed);
            m_parsed = end + 1;
            if (line.starts_with("@ipc.")) {
                m_client = line.substr(5);
            } else if (line.starts_with("id::")) {
                m_told += m_client + ":" + line.substr(4) + " ";
                ++m_replyCount;
            }
        }
        return m_told;
    }
    int countTold() {
        told();
        return m_replyCount;
    }
    bool waitUntilTold(const std::string& expected, double seconds = 10) {
        return waitUntil([&] { return told() == expected; }, seconds);
    }
    // The ids that a client has been told so far.
    std::vector<std::string> idsTold(const std::string& client) {
        std::vector<std::string> ids;
        std::istringstream all(told());
        for (std::string one; all >> one;) {
            if (one.starts_with(client + ":")) {
                ids.push_back(one.substr(client.size() + 1));
            }
        }
        return ids;
    }
    // As long as one request can make it.
    static std::string longId(int number) {
        return std::to_string(number) + std::string(7000, 'x');
    }
    static QuilSession* addRegistered(const std::string& appId) {
        addSession(appId);
        QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
        putIntoState(*session, STATE_REGISTER);
        return session;
    }
    static std::unique_ptr<QuilPushMessage> makePush(const std::string& appId,
                                                     const std::string& id,
                                                     const std::string& client = "a") {
        const std::string bytes = "POST /\r\nPush-Message-ID:" + id + "\r\n\r\nhello";
        auto message = std::make_unique<QuilPushMessage>(appId, "@ipc." + client);
        message->setPayload(bytes.data(), static_cast<int>(bytes.size()));
        return message;
    }
    // The object service ends with the push on its way. Returns when the push has been parked.
    void parkPush(const std::string& appId, std::unique_ptr<QuilPushMessage> message) {
        QuilSessionManager::getInstance()->forgetClients();
        endServiceLife();
        const int before = countRecorded(6, "pushNotification: app id[" + appId + "]\n");
        push(5, std::move(message));
        ASSERT_TRUE(waitUntil([&] {
            return countRecorded(6, "pushNotification: app id[" + appId + "]\n") > before;
        }));
    }
    void parkPush(const std::string& appId, const std::string& id) {
        parkPush(appId, makePush(appId, id));
    }
    // "createSession" of another client.
    static void comeBack(const std::string& appId, const std::string& client,
                         const std::string& id) {
        QuilSessionManager::getInstance()->getSessionByAppId(appId)->setClientObjectId("@ipc." +
                                                                                       client);
        push(1, std::make_unique<QuilCreateSessionCompleteMessage>(appId, id, "@ipc." + client));
    }
    static void pushTo(const std::string& appId, const std::string& client, const std::string& id) {
        push(4, std::make_unique<QuilResponseMessage>(appId, id, "@ipc." + client));
    }
    // Queues requests of an application, whose exchange is under way, until no more can wait.
    void fillLane(const std::string& appId) {
        for (int i = 0; i < 700; ++i) {
            pushReply(appId, longId(i));
        }
        for (int i = 0; i < 50; ++i) {
            pushReply(appId, "short");
        }
        ASSERT_TRUE(waitUntil([&] { return told().ends_with(":short "); }, kLongSeconds))
            << "there is no bound";
    }

    int m_replies;
    int m_threads = 0;         // that do not belong to exchanges
    std::string m_text;        // all replies
    std::size_t m_parsed = 0;  // bytes of it
    std::string m_client;      // that the present reply goes to
    std::string m_told;
    int m_replyCount = 0;
};

}  // namespace

TEST_F(Exchanges, ServerThatDoesNotAnswerHoldsUpNoOtherApplication) {
    HoldingServer dead;
    HoldingServer good;
    good.release();
    beginExchange("a", dead.url());
    ASSERT_TRUE(waitUntil([&] { return dead.countHeld() == 1; }));
    addSession("b");
    pushReply("b", "1");
    EXPECT_TRUE(waitUntilTold("b:1 ")) << told();
    beginExchange("b", good.url(), "2");
    EXPECT_TRUE(waitUntilTold("b:1 b:2 ")) << told();
    dead.release();
    EXPECT_TRUE(waitUntilTold("b:1 b:2 a:c ")) << told();
}

// As if one thread did everything: what was queued behind the exchange comes before its completion,
// which is queued when it ends.
TEST_F(Exchanges, WhatConcernsOneApplicationKeepsItsOrder) {
    HoldingServer server;
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    addSession("b");
    pushReply("a", "1");
    pushReply("b", "2");
    pushReply("a", "3");
    EXPECT_TRUE(waitUntilTold("b:2 ")) << told();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(told(), "b:2 ") << "the application's own did not wait";
    server.release();
    EXPECT_TRUE(waitUntilTold("b:2 a:1 a:3 a:c ")) << told();
}

TEST_F(Exchanges, ExchangesOfOneApplicationAreOneAfterTheOther) {
    HoldingServer server;
    beginExchange("a", server.url(), "1");
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    beginExchange("a", server.url(), "2");
    beginExchange("a", server.url(), "3");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(server.countHeld(), 1);
    server.release();
    EXPECT_TRUE(waitUntilTold("a:1 a:2 a:3 ")) << told();
    EXPECT_EQ(server.countMostHeld(), 1);
}

TEST_F(Exchanges, OneServerHoldsFourAtATime) {
    HoldingServer server;
    for (int i = 0; i < 12; ++i) {
        beginExchange("app" + std::to_string(i), server.url());
    }
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 4; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(server.countHeld(), 4);
    server.release();
    EXPECT_TRUE(waitUntil([this] { return countTold() == 12; })) << told();
    EXPECT_EQ(server.countMostHeld(), 4);
}

TEST_F(Exchanges, DeadServersLeaveThreadsForOthers) {
    HoldingServer first;
    HoldingServer second;
    HoldingServer third;
    HoldingServer good;
    good.release();
    for (int i = 0; i < 30; ++i) {
        HoldingServer& dead = i % 3 == 0 ? first : i % 3 == 1 ? second : third;
        beginExchange("app" + std::to_string(i), dead.url());
    }
    ASSERT_TRUE(waitUntil(
        [&] { return first.countHeld() + second.countHeld() + third.countHeld() == 12; }));
    beginExchange("b", good.url());
    EXPECT_TRUE(waitUntilTold("b:c ")) << told();
}

TEST_F(Exchanges, ThreadsEndWhenThereIsNothingForThem) {
    {
        HoldingServer server;
        for (int i = 0; i < 8; ++i) {
            beginExchange("app" + std::to_string(i), server.url());
        }
        ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 4; }));
        server.release();
        ASSERT_TRUE(waitUntil([this] { return countTold() == 8; }));
    }
    EXPECT_TRUE(waitUntil([this] { return countThreads() == m_threads; })) << countThreads();
}

TEST_F(Exchanges, ApplicationIsServedAtOnceAgainWhenItsExchangeIsOver) {
    HoldingServer server;
    server.release();
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntilTold("a:c ")) << told();
    pushReply("a", "1");
    EXPECT_TRUE(waitUntilTold("a:c a:1 ")) << told();
}

TEST_F(Exchanges, CrowdedLaneIsToldUntilItIsWorkedOff) {
    HoldingServer server;
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    QuilExchanges* exchanges = QuilExchanges::getInstance();
    for (int i = 0; i < 63; ++i) {
        pushReply("a", "r");
    }
    addSession("b");
    pushReply("b", "1");
    ASSERT_TRUE(waitUntilTold("b:1 ")) << told();
    EXPECT_FALSE(exchanges->hasCrowd());
    pushReply("a", "r");
    ASSERT_TRUE(waitUntil([exchanges] { return exchanges->hasCrowd(); }));
    EXPECT_TRUE(exchanges->isCrowded("a"));
    EXPECT_FALSE(exchanges->isCrowded("b"));
    // The loop of this test, which has no pipe: its wake-ups go to standard input.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    ASSERT_EQ(dup2(ends[1], STDIN_FILENO), STDIN_FILENO);
    server.release();
    ASSERT_TRUE(waitUntil([exchanges] { return !exchanges->hasCrowd(); }));
    EXPECT_EQ(readBytes(ends[0], 1).substr(0, 1), "a");
}

TEST_F(Exchanges, FifteenHundredRequestsBehindOneExchangeAreAllAnsweredInTheirOrder) {
    HoldingServer server;
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    std::string expected;
    for (int i = 0; i < 1500; ++i) {
        pushReply("a", std::to_string(i));
        expected += "a:" + std::to_string(i) + " ";
    }
    addSession("b");
    pushReply("b", "1");
    ASSERT_TRUE(waitUntilTold("b:1 ", kLongSeconds)) << told();
    server.release();
    EXPECT_TRUE(waitUntilTold("b:1 " + expected + "a:c ", kLongSeconds)) << told();
}

// Requests of 7,000 bytes each, so that the bound is soon reached.
TEST_F(Exchanges, RequestsBeyondTheBoundOfALaneAreAnsweredOutOfTurnAndNoneIsLost) {
    HoldingServer server;
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    constexpr int kRequests = 700;
    for (int i = 0; i < kRequests; ++i) {
        pushReply("a", longId(i));
    }
    addSession("b");
    pushReply("b", "1");
    ASSERT_TRUE(waitUntil([this] { return told().ends_with("b:1 "); }, kLongSeconds));
    const std::vector<std::string> early = idsTold("a");
    ASSERT_FALSE(early.empty()) << "the lane has no bound";
    EXPECT_LT(early.size(), 200U) << "the lane takes less than 4 MiB";
    EXPECT_EQ(countRecorded(3, "msgHandler: app id [a]: " +
                                   std::to_string(kRequests - static_cast<int>(early.size())) +
                                   " messages wait for its push data server, further requests do "
                                   "not wait for their turn"),
              1)
        << recordedText();
    server.release();
    ASSERT_TRUE(waitUntil([this] { return idsTold("a").size() == kRequests + 1U; }, kLongSeconds));
    // First those that could not wait, then the others, each in their order, and the completion.
    std::vector<std::string> expected;
    for (int i = 0; i < kRequests; ++i) {
        const int waited = kRequests - static_cast<int>(early.size());
        expected.push_back(longId((i + waited) % kRequests));
    }
    expected.emplace_back("c");
    EXPECT_EQ(idsTold("a"), expected);
}

TEST_F(Exchanges, ExchangeThatAFullLaneHasNoRoomForEndsAsAFailedOne) {
    HoldingServer server;
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    fillLane("a");
    push(7, std::make_unique<QuilServerRegMessage>("a", "create", "@ipc.a", server.url()));
    auto destroy = std::make_unique<QuilServerRegMessage>("a", "destroy", "@ipc.a", server.url());
    destroy->setRegister(false);
    push(8, std::move(destroy));
    addSession("b");
    pushReply("b", "1");
    ASSERT_TRUE(waitUntil([this] { return told().ends_with("b:1 "); }, kLongSeconds));
    EXPECT_TRUE(m_text.find("@ipc.a\nmsg::onCreateChannelComplete\nid::create\n"
                            "dat:json:{\"token\":\"\"}\n") != std::string::npos)
        << m_text.substr(0, 2000);
    EXPECT_TRUE(m_text.find("@ipc.a\nmsg::onDestroyChannelComplete\nid::destroy\nerr:n:500\n") !=
                std::string::npos);
    EXPECT_EQ(server.countMostHeld(), 1);
    server.release();
    EXPECT_TRUE(waitUntil([this] { return told().ends_with("a:c "); }, kLongSeconds))
        << "the end of the exchange was dropped";
    EXPECT_EQ(server.countMostHeld(), 1) << "a refused exchange was begun all the same";
}

TEST_F(Exchanges, PushThatCameOffItsPortFindsRoomInAFullLane) {
    HoldingServer server;
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    fillLane("a");
    const std::string bytes = "POST /\r\nPush-Message-ID:m1\r\n\r\nhello";
    auto message = std::make_unique<QuilPushMessage>("a", "@ipc.a");
    message->setPayload(bytes.data(), static_cast<int>(bytes.size()));
    Connected connection;
    message->setSocket(connection.here);
    connection.here = -1;
    push(5, std::move(message));
    addSession("b");
    pushReply("b", "1");
    ASSERT_TRUE(waitUntil([this] { return told().ends_with("b:1 "); }, kLongSeconds));
    EXPECT_FALSE(connection.isClosedWithoutAByte());
    putIntoState(*QuilSessionManager::getInstance()->getSessionByAppId("a"), STATE_REGISTER);
    server.release();
    EXPECT_TRUE(waitUntil([this] { return told().ends_with("a:m1 a:c "); }, kLongSeconds));
}

// Many applications of one user, with a dead server.
TEST_F(Exchanges, AllLanesTogetherAreBoundedToo) {
    HoldingServer server;
    constexpr int kApplications = 10;
    constexpr int kOfEach = 500;
    for (int i = 0; i < kApplications; ++i) {
        beginExchange("app" + std::to_string(i), server.url());
    }
    for (int i = 0; i < kApplications; ++i) {
        for (int j = 0; j < kOfEach; ++j) {
            pushReply("app" + std::to_string(i), longId(j));
        }
    }
    // A lane that holds little has room all the same.
    beginExchange("late", server.url());
    pushReply("late", "1");
    addSession("b");
    pushReply("b", "1");
    ASSERT_TRUE(waitUntil([this] { return told().ends_with("b:1 "); }, kLongSeconds));
    EXPECT_TRUE(idsTold("late").empty());
    const int outOfTurn = countTold() - 1;
    EXPECT_GT(outOfTurn, 100) << "all lanes together have no bound";
    EXPECT_LT(outOfTurn, 1000) << "they take less than 32 MiB";
    server.release();
    constexpr int kAll = kApplications * (kOfEach + 1) + 2 + 1;
    EXPECT_TRUE(waitUntil([this] { return countTold() == kAll; }, kLongSeconds)) << countTold();
}

TEST_F(Exchanges, LaneThatWasFullTakesRequestsAgain) {
    HoldingServer server;
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    fillLane("a");
    server.release();
    ASSERT_TRUE(waitUntil([this] { return told().ends_with("a:c "); }, kLongSeconds));
    HoldingServer next;
    beginExchange("a", next.url(), "d");
    ASSERT_TRUE(waitUntil([&] { return next.countHeld() == 1; }));
    pushReply("a", "1");
    addSession("b");
    pushReply("b", "1");
    EXPECT_TRUE(waitUntil([this] { return told().ends_with("a:c b:1 "); })) << "it did not wait";
    next.release();
    EXPECT_TRUE(waitUntil([this] { return told().ends_with("a:c b:1 a:1 a:d "); }));
}

TEST_F(Exchanges, WithoutAThreadTheExchangeHappensAllTheSame) {
    HoldingServer server;
    server.release();
    pthread_attr_t before;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    ASSERT_EQ(pthread_attr_init(&huge), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 60), 0);
    // The server's own threads are made before and after.
    beginExchange("a", server.url(), "1");
    ASSERT_TRUE(waitUntilTold("a:1 ")) << told();
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    beginExchange("b", "http://127.0.0.1:1", "2");
    const bool isTold = waitUntilTold("a:1 b:2 ");
    pthread_setattr_default_np(&before);
    EXPECT_TRUE(isTold) << told();
    EXPECT_TRUE(wasLogged(3, "No thread for an exchange with a push data server"));
}

// What was parked awaits the application's client; nothing else of the application does.
TEST_F(Exchanges, RepliesAndExchangesDoNotWaitBehindAParkedPush) {
    HoldingServer server;
    server.release();
    QuilSession* session = addRegistered("a");
    parkPush("a", "m1");
    pushTo("a", "z", "r1");
    EXPECT_TRUE(waitUntilTold("z:r1 ")) << told();
    push(7, std::make_unique<QuilServerRegMessage>("a", "c", "@ipc.z", server.url()));
    EXPECT_TRUE(waitUntilTold("z:r1 z:c ")) << told();
    pushTo("a", "z", "r2");
    EXPECT_TRUE(waitUntilTold("z:r1 z:c z:r2 ")) << told();
    comeBack("a", "z", "s");
    EXPECT_TRUE(waitUntilTold("z:r1 z:c z:r2 z:s z:m1 ")) << told();
    EXPECT_TRUE(session->isRegistered());
}

TEST_F(Exchanges, ParkedPushesKeepTheirOrderAlsoWithThoseThatCameBehindAnExchange) {
    HoldingServer server;
    addRegistered("a");
    parkPush("a", "m1");
    push(7, std::make_unique<QuilServerRegMessage>("a", "c", "@ipc.z", server.url()));
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    push(5, makePush("a", "m2", "z"));
    comeBack("a", "z", "s");
    push(5, makePush("a", "m3", "z"));
    pushTo("a", "z", "r");
    server.release();
    EXPECT_TRUE(waitUntilTold("z:s z:m1 z:m2 z:m3 z:r z:c ")) << told();
}

// The answer could not wait for its turn, but the pushes can.
TEST_F(Exchanges, ApplicationThatReturnsWhileItsLaneIsFullGetsWhatWasParked) {
    HoldingServer server;
    addRegistered("a");
    parkPush("a", "m1");
    push(7, std::make_unique<QuilServerRegMessage>("a", "c", "@ipc.z", server.url()));
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    fillLane("a");
    comeBack("a", "z", "s");
    ASSERT_TRUE(waitUntil([this] { return told().ends_with("z:s "); })) << told().size();
    push(5, makePush("a", "m2", "z"));
    server.release();
    ASSERT_TRUE(waitUntil([this] { return idsTold("z").size() == 4; }, kLongSeconds))
        << idsTold("z").size();
    EXPECT_EQ(idsTold("z"), (std::vector<std::string>{"s", "c", "m1", "m2"}));
}

TEST_F(Exchanges, ParkedPushIsClosedWhenItsChannelEnds) {
    QuilSession* session = addRegistered("a");
    Connected connection;
    auto message = makePush("a", "m1");
    message->setSocket(connection.here);
    connection.here = -1;
    parkPush("a", std::move(message));
    push(3, std::make_unique<QuilDestroyChannelCompleteMessage>("a", "d", "@ipc.z"));
    EXPECT_TRUE(waitUntilTold("z:d ")) << told();
    EXPECT_TRUE(session->isDeleted());
    EXPECT_TRUE(waitUntil([&] { return connection.isClosedWithoutAByte(); }));
    comeBack("a", "z", "s");
    pushTo("a", "z", "r");
    EXPECT_TRUE(waitUntilTold("z:d z:s z:r ")) << told();
}

TEST_F(Exchanges, ParkedPushStaysWhenItsChannelCouldNotBeEnded) {
    addRegistered("a");
    parkPush("a", "m1");
    auto failed = std::make_unique<QuilDestroyChannelCompleteMessage>("a", "d", "@ipc.z");
    failed->setErrorCode(10103);
    push(3, std::move(failed));
    comeBack("a", "z", "s");
    EXPECT_TRUE(waitUntilTold("z:d z:s z:m1 ")) << told();
}

// A push that came off its port just before the object service ended is not lost.
TEST_F(Exchanges, PushThatWasTakenBeforeTheServiceEndedWaitsForItsApplication) {
    addSession("a");
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId("a");
    putIntoState(*session, STATE_REGISTER);
    Connected connection;
    auto first = makePush("a", "m1");
    first->setSocket(connection.here);
    connection.here = -1;
    auto second = makePush("a", "m2");
    // The service ends, with both of them on their way.
    QuilSessionManager::getInstance()->forgetClients();
    endServiceLife();
    push(5, std::move(first));
    push(5, std::move(second));
    addSession("b");
    pushReply("b", "1");
    ASSERT_TRUE(waitUntilTold("b:1 ")) << told();
    EXPECT_EQ(told(), "b:1 ");
    EXPECT_FALSE(connection.isClosedWithoutAByte());
    // The application comes back as another client of the new service.
    session->setClientObjectId("@ipc.z");
    push(1, std::make_unique<QuilCreateSessionCompleteMessage>("a", "s", "@ipc.z"));
    EXPECT_TRUE(waitUntilTold("b:1 z:s z:m1 z:m2 ")) << told();
    session->acknowledgePush("m1", true);
    EXPECT_EQ(connection.readUntilClosed().size(), 72U);
    // And all is as before.
    push(5, makePush("a", "m3"));
    EXPECT_TRUE(waitUntil([this] { return told().ends_with("a:m3 "); })) << told();
}

TEST_F(Exchanges, ReplyToAClientOfTheServiceBeforeGoesToNobody) {
    addSession("a");
    addSession("b");
    auto old = std::make_unique<QuilResponseMessage>("a", "old", "@ipc.a");
    endServiceLife();
    push(4, std::move(old));
    pushReply("b", "1");
    EXPECT_TRUE(waitUntilTold("b:1 ")) << told();
    EXPECT_TRUE(wasLogged(5, "Wrote -1 bytes to pps."));
}

// The second exchange of an application is with another server, and must not count against the
// first.
TEST_F(Exchanges, EachExchangeCountsForItsOwnServer) {
    HoldingServer dead;
    HoldingServer good;
    good.release();
    for (int i = 0; i < 4; ++i) {
        const std::string appId = "app" + std::to_string(i);
        beginExchange(appId, good.url(), "1");
        beginExchange(appId, dead.url(), "2");
    }
    ASSERT_TRUE(waitUntil([&] { return dead.countHeld() == 4; }));
    beginExchange("b", good.url());
    EXPECT_TRUE(waitUntil([this] { return told().find("b:c ") != std::string::npos; })) << told();
}

// The application comes back in the moment in which its push is about to be parked.
TEST_F(Exchanges, ApplicationThatReturnsWhileAPushIsBeingParkedIsAnsweredAndGetsIt) {
    HoldingServer server;
    beginExchange("a", server.url());
    ASSERT_TRUE(waitUntil([&] { return server.countHeld() == 1; }));
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId("a");
    const std::string bytes = "POST /\r\nPush-Message-ID:m1\r\n\r\nhello";
    auto message = std::make_unique<QuilPushMessage>("a", "@ipc.a");
    message->setPayload(bytes.data(), static_cast<int>(bytes.size()));
    push(5, std::move(message));
    addSession("b");
    pushReply("b", "1");
    ASSERT_TRUE(waitUntilTold("b:1 ")) << told();
    putIntoState(*session, STATE_REGISTER);
    QuilSessionManager::getInstance()->forgetClients();
    endServiceLife();
    {
        // The copy of the push goes when it could not be addressed.
        const LogGate gate("freeHttpHeaders: name [Push-Message-ID] value[m1]");
        server.release();
        ASSERT_TRUE(gate.waitUntilHeld());
        session->setClientObjectId("@ipc.z");
        push(1, std::make_unique<QuilCreateSessionCompleteMessage>("a", "s", "@ipc.z"));
        addSession("c");
        pushReply("c", "1");
        ASSERT_TRUE(waitUntil([this] { return told().find("c:1 ") != std::string::npos; }));
    }
    EXPECT_TRUE(waitUntil([this] { return told().find("z:s z:m1 ") != std::string::npos; }))
        << told();
}

TEST_F(Exchanges, ReturningApplicationNeedsNoThreadForWhatWasParked) {
    HoldingServer dead[4];
    for (int i = 0; i < 16; ++i) {
        beginExchange("app" + std::to_string(i), dead[i % 4].url());
    }
    ASSERT_TRUE(waitUntil([&] {
        return dead[0].countHeld() + dead[1].countHeld() + dead[2].countHeld() +
                   dead[3].countHeld() >=
               12;
    }));
    addSession("a");
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId("a");
    putIntoState(*session, STATE_REGISTER);
    auto message = std::make_unique<QuilPushMessage>("a", "@ipc.a");
    const std::string bytes = "POST /\r\nPush-Message-ID:m1\r\n\r\nhello";
    message->setPayload(bytes.data(), static_cast<int>(bytes.size()));
    QuilSessionManager::getInstance()->forgetClients();
    endServiceLife();
    push(5, std::move(message));
    session->setClientObjectId("@ipc.z");
    push(1, std::make_unique<QuilCreateSessionCompleteMessage>("a", "s", "@ipc.z"));
    EXPECT_TRUE(waitUntil([this] {
        const std::string all = told();
        return all.find("z:s ") != std::string::npos && all.find("z:m1 ") != std::string::npos;
    })) << told();
}
