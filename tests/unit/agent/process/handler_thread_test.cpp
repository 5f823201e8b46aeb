// The message handler thread: what becomes of each type of node, seen from the queue's end and from
// the application's.

#include "agent/process/handler_thread.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/clients/client_object.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "agent/support/log.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/scarce_memory.hpp"

namespace {

// Says in the log when it goes, and with which error code.
template <typename Message>
class Mortal : public Message {
  public:
    using Message::Message;
    ~Mortal() override {
        QUIL_LOG(LOG_LEVEL_INFO, "destroyed %s code %d", this->getId().c_str(),
                 this->getErrorCode());
    }
};

// A push data server that gives one fixed answer per connection, in order.
class PushDataServer {
  public:
    explicit PushDataServer(std::vector<std::string> answers) : m_answers(std::move(answers)) {
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bindLoopback(m_listener);
        listen(m_listener, 5);
        m_url = "http://127.0.0.1:" + std::to_string(boundPort(m_listener));
        m_thread = std::thread([this] { serve(); });
    }
    ~PushDataServer() {
        shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        close(m_listener);
    }
    PushDataServer(const PushDataServer&) = delete;
    PushDataServer& operator=(const PushDataServer&) = delete;

    const std::string& url() const { return m_url; }

  private:
    void serve() const {
        for (const std::string& answer : m_answers) {
            const int connection = accept(m_listener, nullptr, nullptr);
            if (connection == -1) {
                return;
            }
            std::string request;
            char byte = 0;
            while (request.find("\r\n\r\n") == std::string::npos &&
                   read(connection, &byte, 1) == 1) {
                request += byte;
            }
            static_cast<void>(!write(connection, answer.data(), answer.size()));
            close(connection);
        }
    }

    std::vector<std::string> m_answers;
    int m_listener = -1;
    std::string m_url;
    std::thread m_thread;
};

std::string answer(const std::string& body, const std::string& header = "") {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + header +
           "Connection: close\r\n\r\n" + body;
}

std::string pushBytes(const std::string& id, const std::string& data) {
    return "POST / HTTP/1.1\r\nPush-Message-ID:" + id + "\r\n\r\n" + data;
}

class Handler : public SessionsTest {
  protected:
    Handler() : m_replies(m_platform.makeFifo("/pps/services/push/ipc?server")) {
        m_platform.write("/pps/services/push/ipc", "");
        unsetenv("http_proxy");
        unsetenv("all_proxy");
        EXPECT_GE(clientIfInit(), 0);
        clearRecordedLines();
        EXPECT_EQ(msgHandlerInit(), 1);
    }

    QuilSession& addSession(int state = STATE_CREATE) {
        auto session = std::make_unique<QuilSession>("app", "@ipc.1");
        QuilSessionManager::getInstance()->addSession(session);
        QuilSession& added = *QuilSessionManager::getInstance()->getSessionByAppId("app");
        putIntoState(added, state);
        return added;
    }

    static void push(int type, std::unique_ptr<QuilBaseMessage> message) {
        QuilMessageManager::getInstance()->push(
            std::make_unique<QuilMessageNode>(type, std::move(message)));
    }

    // Waits until everything that was pushed before has been handled.
    static void waitForHandler() {
        const int before = countRecorded(5, "destroyed last code 0");
        push(4, std::make_unique<Mortal<QuilResponseMessage>>("app", "last", "@ipc.1"));
        ASSERT_TRUE(waitUntil([before] {
            return countRecorded(5, "destroyed last code 0") > before;
        })) << recordedText();
    }

    // What has been written for applications when the handler has done everything.
    std::string replies() {
        waitForHandler();
        std::string text = readAvailable(m_replies);
        const std::size_t last = text.find("@ipc.1\nid::last\n");
        return last == std::string::npos ? text + "(no last reply)" : text.substr(0, last);
    }

    std::unique_ptr<QuilPushMessage> makePush(const std::string& bytes,
                                              const std::string& appId = "app") {
        auto message = std::make_unique<QuilPushMessage>(appId, "@ipc.1");
        message->setPayload(bytes.data(), static_cast<int>(bytes.size()));
        return message;
    }

    int m_replies;
};

// The thread is not started by these.
class HandlerStart : public SessionsTest {};

}  // namespace

TEST_F(Handler, StartSaysThatItIsDone) {
    EXPECT_TRUE(wasLogged(5, "msgHandlerInit: init Message Handler done.")) << recordedText();
}

TEST_F(Handler, ThreadIsNamed) {
    EXPECT_TRUE(waitUntil([] {
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::ifstream file(task.path() / "comm");
            std::string name;
            std::getline(file, name);
            if (name == "MSG HANDLER") {
                return true;
            }
        }
        return false;
    }));
}

TEST_F(HandlerStart, WithoutAQueueFails) {
    const ScarceMemory memory(512);  // the first block of the standard library's deque
    EXPECT_EQ(msgHandlerInit(), 0);
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_FALSE(wasLogged(5, "msgHandlerInit: init Message Handler done.")) << recordedText();
}

TEST_F(HandlerStart, WithoutAThreadFailsAndSaysSo) {
    pthread_attr_t before;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    ASSERT_EQ(pthread_attr_init(&huge), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 60), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    EXPECT_EQ(msgHandlerInit(), 0);
    pthread_setattr_default_np(&before);
    EXPECT_EQ(recordedText(), "2 Init message handler thread failed\n");
}

TEST_F(Handler, CompletionsAndResponsesGoToTheApplication) {
    addSession();
    push(1, std::make_unique<QuilCreateSessionCompleteMessage>("app", "17", "@ipc.1"));
    auto created = std::make_unique<QuilCreateChannelCompleteMessage>("app", "18", "@ipc.1");
    created->setToken("2FFF");
    push(2, std::move(created));
    push(4, std::make_unique<QuilResponseMessage>("app", "19", "@ipc.2"));
    EXPECT_EQ(replies(),
              "@ipc.1\nmsg::onCreateSessionComplete\nid::17\n"
              "@ipc.1\nmsg::onCreateChannelComplete\nid::18\ndat:json:{\"token\":\"2FFF\"}\n"
              "@ipc.2\nid::19\n");
}

TEST_F(Handler, EachNodeIsLoggedCopiedDispatchedAndDestroyedInThatOrder) {
    addSession();
    ASSERT_TRUE(waitForLogged(6, "QuilMessageManager::pop called.\n"));
    waitForHandler();
    waitUntil([] { return countRecorded(6, "QuilMessageManager::pop called.\n") == 2; });
    clearRecordedLines();
    push(4, std::make_unique<Mortal<QuilResponseMessage>>("app", "19", "@ipc.1"));
    ASSERT_TRUE(waitForLogged(6, "QuilMessageManager::pop called.\n"));
    std::string text = recordedText();
    text.erase(0, text.find("5 4 received\n"));
    // The pushing thread's own last line may come anywhere in between.
    const std::string pushed = "6 QuilMessageManager::push: return_code = 1\n";
    const std::size_t at = text.find(pushed);
    if (at != std::string::npos) {
        text.erase(at, pushed.size());
    }
    EXPECT_EQ(text,
              "5 4 received\n"
              "6 QuilMessageFactory::copyMessage: receive Message Type [4]\n"
              "5 app id[app] clientId[@ipc.1]\n"
              "5 providerAppID is app\n\n"
              "6 getSessionByAppId: size of map 1\n"
              "6 : Sending data back to app id[app] client id[@ipc.1] err[0]\n"
              "5 sendMessage: Callback [] for client id[@ipc.1] err[0] has data[0]\n"
              "5 Wrote 14 bytes to pps.\n"
              "5 destroyed 19 code 0\n"
              "6 QuilMessageManager::pop called.\n\n");
}

TEST_F(Handler, ReplyForAnUnknownApplicationCarries500) {
    addSession();
    auto message = std::make_unique<QuilResponseMessage>("nobody", "19", "@ipc.2");
    message->setErrorCode(10101);
    push(4, std::move(message));
    EXPECT_EQ(replies(), "@ipc.2\nid::19\nerr:n:500\n");
}

TEST_F(Handler, NodesAreHandledInTheOrderOfTheirPush) {
    addSession();
    std::string expected;
    for (int id = 0; id < 50; ++id) {
        push(4, std::make_unique<QuilResponseMessage>("app", std::to_string(id), "@ipc.2"));
        expected += "@ipc.2\nid::" + std::to_string(id) + "\n";
    }
    EXPECT_EQ(replies(), expected);
}

TEST_F(Handler, DestroyCompletionDeletesTheSessionAndTellsTheApplication) {
    QuilSession& session = addSession(STATE_REGISTER);
    push(3, std::make_unique<QuilDestroyChannelCompleteMessage>("app", "20", "@ipc.1"));
    EXPECT_EQ(replies(), "@ipc.1\nmsg::onDestroyChannelComplete\nid::20\n");
    EXPECT_TRUE(session.isDeleted());
    EXPECT_TRUE(wasLogged(6, "processDestroyChannelCallback: app id [app] error code [0]"))
        << recordedText();
}

TEST_F(Handler, PushIsEncodedAndDelivered) {
    addSession(STATE_REGISTER);
    push(5, makePush(pushBytes("m1", "hello")));
    EXPECT_EQ(replies(),
              "@ipc.1\nmsg::pushNotification\nid::m1\ndat:json:{\"appLevelAck\":0,"
              "\"data\":\"aGVsbG8=\",\"httpHeaders\":{\"Push-Message-ID\":\"m1\"}}\n");
}

TEST_F(Handler, PushWithAWaitingSenderIsKeptForTheAnswer) {
    QuilSession& session = addSession(STATE_REGISTER);
    Connected connection;
    auto message = makePush(pushBytes("m1", "hello"));
    message->setSocket(connection.here);
    connection.here = -1;
    push(5, std::move(message));
    EXPECT_NE(replies().find("\"appLevelAck\":1"), std::string::npos);
    EXPECT_FALSE(connection.isClosedWithoutAByte());
    session.acknowledgePush("m1", true);
    EXPECT_EQ(connection.readUntilClosed().size(), 72U);
}

TEST_F(Handler, PushThatCannotBeEncodedIsClosedAndNotDelivered) {
    addSession(STATE_REGISTER);
    Connected connection;
    auto message = makePush("no header block at all");
    message->setId("m1");
    message->setSocket(connection.here);
    connection.here = -1;
    push(5, std::move(message));
    EXPECT_EQ(replies(), "");
    EXPECT_TRUE(connection.isClosedWithoutAByte());
    EXPECT_TRUE(wasLogged(5, "pushNotification: id[m1] error code[10109]")) << recordedText();
}

TEST_F(Handler, RegistrationOpensThePortAndGivesTheToken) {
    const PushDataServer server(
        {answer("param=1"),
         answer("rc=200", "vex-device-ovra-port: " + std::to_string(freePort()) + "\r\n")});
    m_platform.write("/pps/system/nvram/deviceinfo", "@deviceinfo\nPIN::0x2FFF\n");
    QuilSession& session = addSession();
    push(7, std::make_unique<Mortal<QuilServerRegMessage>>("app", "21", "@ipc.1", server.url()));
    ASSERT_TRUE(waitForLogged(5, "destroyed 21 code 0")) << recordedText();
    EXPECT_EQ(replies(),
              "@ipc.1\nmsg::onCreateChannelComplete\nid::21\ndat:json:{\"token\":\"2FFF\"}\n");
    EXPECT_EQ(stateOf(session), STATE_REGISTER);
    EXPECT_TRUE(isListening(session.getPort().getPort()));
}

TEST_F(Handler, FailedRegistrationLeavesItsCodeInTheNodesOwnMessage) {
    QuilSession& session = addSession();
    const std::string url = "http://127.0.0.1:" + std::to_string(freePort());
    push(7, std::make_unique<Mortal<QuilServerRegMessage>>("app", "21", "@ipc.1", url));
    ASSERT_TRUE(waitForLogged(5, "destroyed 21 code 10103")) << recordedText();
    EXPECT_EQ(replies(),
              "@ipc.1\nmsg::onCreateChannelComplete\nid::21\ndat:json:{\"token\":\"\"}\n");
    EXPECT_TRUE(session.isCreated());
}

TEST_F(Handler, DeregistrationEndsInTheDestroyCompletion) {
    const PushDataServer server({answer("param=1"), answer("rc=200")});
    QuilSession& session = addSession(STATE_REGISTER);
    auto request =
        std::make_unique<Mortal<QuilServerRegMessage>>("app", "22", "@ipc.1", server.url());
    request->setRegister(false);
    push(8, std::move(request));
    ASSERT_TRUE(waitForLogged(5, "destroyed 22 code 0")) << recordedText();
    EXPECT_EQ(replies(), "@ipc.1\nmsg::onDestroyChannelComplete\nid::22\n");
    EXPECT_TRUE(session.isDeleted());
}

TEST_F(Handler, FailedDeregistrationReachesTheApplication) {
    QuilSession& session = addSession(STATE_REGISTER);
    auto request = std::make_unique<Mortal<QuilServerRegMessage>>(
        "app", "22", "@ipc.1", "http://127.0.0.1:" + std::to_string(freePort()));
    request->setRegister(false);
    push(8, std::move(request));
    ASSERT_TRUE(waitForLogged(5, "destroyed 22 code 10103")) << recordedText();
    EXPECT_EQ(replies(), "@ipc.1\nmsg::onDestroyChannelComplete\nid::22\nerr:n:10103\n");
    EXPECT_EQ(stateOf(session), STATE_REGISTER);
}

TEST_F(Handler, UnknownTypesAreDroppedWithALine) {
    addSession();
    for (const int type : {-1, 0, 6, 9, 10, 11, 1000}) {
        clearRecordedLines();
        push(type, std::make_unique<QuilResponseMessage>("app", "23", "@ipc.1"));
        EXPECT_EQ(replies(), "") << type;
        EXPECT_EQ(countRecorded(5, std::to_string(type) + " received"), 1) << recordedText();
        EXPECT_EQ(countRecorded(3, "QuilMessageFactory::copyMessage returns NULL"), 1)
            << recordedText();
    }
}

TEST_F(Handler, MessageOfAnotherClassThanItsTypeIsDropped) {
    addSession();
    for (const int type : {1, 2, 3, 5, 7, 8}) {
        push(type, std::make_unique<QuilResponseMessage>("app", "23", "@ipc.1"));
    }
    EXPECT_EQ(replies(), "");
    EXPECT_EQ(countRecorded(3, "QuilMessageFactory::copyMessage returns NULL"), 6);
}

TEST_F(Handler, NewestThirtyTwoDroppedNodesAreKept) {
    addSession();
    for (int id = 0; id < 32; ++id) {
        push(10, std::make_unique<Mortal<QuilResponseMessage>>("app", std::to_string(id), ""));
    }
    waitForHandler();
    EXPECT_EQ(recordedText().find("destroyed 0 "), std::string::npos) << "32 are kept";
    for (int id = 32; id < 70; ++id) {
        push(10, std::make_unique<Mortal<QuilResponseMessage>>("app", std::to_string(id), ""));
    }
    waitForHandler();
    for (int id = 0; id < 70; ++id) {
        EXPECT_EQ(countRecorded(5, "destroyed " + std::to_string(id) + " code 0"), id < 38 ? 1 : 0)
            << id;
    }
}

TEST_F(Handler, ExceptionWhileCopyingEndsTheMessageNotTheThread) {
    addSession();
    auto message = std::make_unique<Mortal<QuilResponseMessage>>("app", "24", "@ipc.1");
    message->setArgument(longText('c'));
    failAllocationsEverywhere(kLongTextBytes, 1);
    push(4, std::move(message));
    ASSERT_TRUE(waitForLogged(3, "msgHandler: exception occurred when handling message [4]"))
        << recordedText();
    EXPECT_EQ(replies(), "");
    EXPECT_TRUE(wasLogged(5, "destroyed 24 code 0")) << recordedText();
}

TEST_F(Handler, ExceptionWhileCopyingAPushClosesItsConnection) {
    addSession(STATE_REGISTER);
    Connected connection;
    auto message = makePush(pushBytes("m1", "hello"));
    message->setArgument(longText('c'));
    message->setSocket(connection.here);
    connection.here = -1;
    failAllocationsEverywhere(kLongTextBytes, 1);
    push(5, std::move(message));
    ASSERT_TRUE(waitForLogged(3, "msgHandler: exception occurred when handling message [5]"))
        << recordedText();
    EXPECT_TRUE(connection.isClosedWithoutAByte());
    EXPECT_EQ(replies(), "");
}

TEST_F(Handler, ExceptionWhileEncodingAPushClosesItsConnection) {
    addSession(STATE_REGISTER);
    Connected connection;
    auto message = makePush(pushBytes("m1", std::string(3000, 'd')));
    message->setSocket(connection.here);
    connection.here = -1;
    failAllocationsEverywhere(4001, 1);  // the base64 form of 3000 bytes
    push(5, std::move(message));
    ASSERT_TRUE(waitForLogged(3, "msgHandler: exception occurred when handling message [5]"))
        << recordedText();
    EXPECT_TRUE(connection.isClosedWithoutAByte());
    EXPECT_EQ(replies(), "");
}
