// Replies and notifications as applications read them.

#include "agent/clients/client_reply.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "agent/clients/client_object.hpp"
#include "agent/messages/message_factory.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "tests/support/agent/clients_fixture.hpp"
#include "tests/support/agent/process_fixture.hpp"
#include "tests/support/wait_until.hpp"

namespace {

class ClientReply : public ClientsTest {
  protected:
    ClientReply() { serveObject(); }

    template <typename Message>
    static std::unique_ptr<Message> make(int code) {
        auto message = std::make_unique<Message>("com.example.news", "1", "@ipc.17");
        message->setErrorCode(code);
        return message;
    }

    static std::unique_ptr<QuilPushMessage> makePush(const std::string& bytes, int socket) {
        auto push = std::make_unique<QuilPushMessage>("com.example.news", "@ipc.17");
        push->setPayload(bytes.data(), static_cast<int>(bytes.size()));
        push->createData();
        push->setSocket(socket);
        return push;
    }
};

const std::string kPush =
    "POST /x HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m1\r\n\r\nhello";

// Tells when it is destroyed, and gives what the test wants it to.
class ObservedMessage : public QuilBaseMessage {
  public:
    ObservedMessage(bool isToBeWritten, int* destroyed)
        : QuilBaseMessage("app", "1", "@ipc.17"),
          m_isToBeWritten(isToBeWritten),
          m_destroyed(destroyed) {}
    ~ObservedMessage() override { ++*m_destroyed; }
    bool addData(pps_encoder_t* encoder) const override {
        pps_encoder_add_string(encoder, "key", "value");
        return m_isToBeWritten;
    }

  private:
    bool m_isToBeWritten;
    int* m_destroyed;
};

}  // namespace

TEST_F(ClientReply, SessionCreated) {
    sendMessage(make<QuilCreateSessionCompleteMessage>(0));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
}

TEST_F(ClientReply, SessionNotCreated) {
    sendMessage(make<QuilCreateSessionCompleteMessage>(500));
    EXPECT_EQ(nextReply(), golden("replies_session_not_created.txt"));
}

TEST_F(ClientReply, ChannelCreatedCarriesTheToken) {
    auto message = make<QuilCreateChannelCompleteMessage>(0);
    message->setToken("2a3b");
    sendMessage(std::move(message));
    EXPECT_EQ(nextReply(), golden("replies_channel_created.txt"));
}

TEST_F(ClientReply, ChannelWithAnErrorCarriesNoToken) {
    auto message = make<QuilCreateChannelCompleteMessage>(10102);
    message->setToken("2a3b");
    sendMessage(std::move(message));
    EXPECT_EQ(nextReply(), golden("replies_channel_empty_url.txt"));
}

TEST_F(ClientReply, ChannelDestroyed) {
    sendMessage(make<QuilDestroyChannelCompleteMessage>(0));
    EXPECT_EQ(nextReply(), golden("replies_channel_destroyed.txt"));
}

TEST_F(ClientReply, EveryDestroyFailureHasItsCode) {
    for (const auto& [code, file] : {std::pair{10100, "replies_channel_destroy_no_session.txt"},
                                     std::pair{10106, "replies_channel_destroy_not_registered.txt"},
                                     std::pair{10004, "replies_channel_destroy_wrong_state.txt"}}) {
        sendMessage(make<QuilDestroyChannelCompleteMessage>(code));
        EXPECT_EQ(nextReply(), golden(file));
    }
}

TEST_F(ClientReply, ChannelThatStands) {
    auto message = make<QuilQueryChannelCompleteMessage>(0);
    message->setChannel({.isRegistered = true,
                         .isListening = true,
                         .port = 24010,
                         .token = "2a3b",
                         .ppgUrl = "http://127.0.0.1:8080"});
    sendMessage(std::move(message));
    EXPECT_EQ(nextReply(), golden("replies_channel_stands.txt"));
}

TEST_F(ClientReply, ChannelOfNoSession) {
    sendMessage(make<QuilQueryChannelCompleteMessage>(10100));
    EXPECT_EQ(nextReply(), golden("replies_channel_query_no_session.txt"));
}

TEST_F(ClientReply, LaunchRepliesHaveNoMsg) {
    sendMessage(make<QuilResponseMessage>(0));
    EXPECT_EQ(nextReply(), golden("replies_launch_done.txt"));
    sendMessage(make<QuilResponseMessage>(10101));
    EXPECT_EQ(nextReply(), golden("replies_launch_empty_string.txt"));
    sendMessage(make<QuilResponseMessage>(500));
    EXPECT_EQ(nextReply(), golden("replies_launch_no_session.txt"));
}

TEST_F(ClientReply, SimChangeResponseCarriesItsName) {
    sendMessage(QuilMessageFactory::getInstance()->createMessage(9, "app", "", "@ipc.17"));
    EXPECT_EQ(nextReply(), "@ipc.17\nmsg::onSimChange\nid::\n");
}

TEST_F(ClientReply, PushWithAWaitingSenderAsksForAnAnswer) {
    sendMessage(makePush(kPush, 5));
    EXPECT_EQ(nextReply(), golden("replies_push_awaiting_answer.txt"));
}

TEST_F(ClientReply, PushWithoutAConnectionAsksForNone) {
    sendMessage(makePush(kPush, -1));
    EXPECT_EQ(nextReply(), golden("replies_push.txt"));
}

TEST_F(ClientReply, PushWithoutHeadersHasNoHttpHeaders) {
    auto push = makePush("POST /x\r\n\r\nhello", -1);
    push->setId("m1");
    sendMessage(std::move(push));
    EXPECT_EQ(nextReply(), golden("replies_push_without_headers.txt"));
}

TEST_F(ClientReply, LargestPushTravelsInOneWrite) {
    auto push = makePush("PO\r\n\r\n" + std::string(11517, 'x'), -1);
    push->setId("m1");
    const std::string data = push->getData();
    ASSERT_EQ(data.size(), 15356U);
    sendMessage(std::move(push));
    EXPECT_EQ(nextReply(),
              "@ipc.17\nmsg::pushNotification\nid::m1\ndat:json:{\"appLevelAck\":0,\"data\":\"" +
                  data + "\"}\n");
}

// What a sender puts into a header can neither add a line nor close the object.
TEST_F(ClientReply, HostileHeaderStaysOneJsonString) {
    sendMessage(makePush("PO\r\nA:\"}\nmsg::x\tb\\\r\nPush-Message-ID:\n@ipc.1\r\n\r\nx", -1));
    EXPECT_EQ(nextReply(),
              "@ipc.17\nmsg::pushNotification\nid:c:\\n@ipc.1\n"
              "dat:json:{\"appLevelAck\":0,\"data\":\"eA==\",\"httpHeaders\":{"
              "\"A\":\"\\\"}\\nmsg::x\\tb\\\\\",\"Push-Message-ID\":\"\\n@ipc.1\"}}\n");
}

TEST_F(ClientReply, EqualHeadersAllReachTheApplicationInOrder) {
    auto push = makePush("PO\r\nA:1\r\nB:2\r\nA:3\r\n\r\nx", -1);
    push->setId("m1");
    sendMessage(std::move(push));
    EXPECT_EQ(nextReply(),
              "@ipc.17\nmsg::pushNotification\nid::m1\n"
              "dat:json:{\"appLevelAck\":0,\"data\":\"eA==\",\"httpHeaders\":{"
              "\"A\":\"1\",\"B\":\"2\",\"A\":\"3\"}}\n");
}

TEST_F(ClientReply, IdIsWrittenAlsoWhenEmpty) {
    sendMessage(std::make_unique<QuilResponseMessage>("app", "", "@ipc.17"));
    EXPECT_EQ(nextReply(), "@ipc.17\nid::\n");
}

TEST_F(ClientReply, CodeZeroGivesNoErr) {
    sendMessage(make<QuilResponseMessage>(0));
    EXPECT_EQ(nextReply(), "@ipc.17\nid::1\n");
}

TEST_F(ClientReply, NegativeCodeGivesNoErr) {
    sendMessage(make<QuilResponseMessage>(-5));
    EXPECT_EQ(nextReply(), "@ipc.17\nid::1\n");
}

TEST_F(ClientReply, NegativeCodeLeavesTheDataIn) {
    auto message = make<QuilCreateChannelCompleteMessage>(-1);
    message->setToken("t");
    sendMessage(std::move(message));
    EXPECT_EQ(nextReply(),
              "@ipc.17\nmsg::onCreateChannelComplete\nid::1\ndat:json:{\"token\":\"t\"}\n");
}

TEST_F(ClientReply, CodeOneIsAnErr) {
    sendMessage(make<QuilResponseMessage>(1));
    EXPECT_EQ(nextReply(), "@ipc.17\nid::1\nerr:n:1\n");
}

// A reloaded session has no client: its reply names the object of nobody in particular.
TEST_F(ClientReply, EmptyClientIdLeavesTheNameLineOut) {
    sendMessage(std::make_unique<QuilResponseMessage>("app", "1", ""));
    EXPECT_EQ(nextReply(), "id::1\n");
}

TEST_F(ClientReply, SendingLogsWhatAndHowMuch) {
    clearRecordedLines();
    sendMessage(make<QuilCreateSessionCompleteMessage>(500));
    EXPECT_EQ(linesOf("client_reply.cpp"),
              "5 sendMessage: Callback [onCreateSessionComplete] for client id[@ipc.17] err[500] "
              "has data[0]\n"
              "5 Wrote 53 bytes to pps.\n");
    EXPECT_EQ(nextReply().size(), 53U);
}

TEST_F(ClientReply, SendingLogsThatThereIsData) {
    sendMessage(make<QuilCreateChannelCompleteMessage>(0));
    EXPECT_TRUE(wasLogged(5,
                          "sendMessage: Callback [onCreateChannelComplete] for client id[@ipc.17] "
                          "err[0] has data[1]"))
        << recordedText();
}

TEST_F(ClientReply, DataThatDoesNotEncodeSuppressesTheWriteAndFreesTheMessage) {
    int destroyed = 0;
    clearRecordedLines();
    sendMessage(std::make_unique<ObservedMessage>(false, &destroyed));
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(repliesSoFar(), "");
    EXPECT_EQ(linesOf("client_reply.cpp"),
              "5 sendMessage: Callback [] for client id[@ipc.17] err[0] has data[1]\n");
}

TEST_F(ClientReply, ErrorIsWrittenAlsoWhenTheDataWouldNotEncode) {
    int destroyed = 0;
    auto message = std::make_unique<ObservedMessage>(false, &destroyed);
    message->setErrorCode(3);
    sendMessage(std::move(message));
    EXPECT_EQ(nextReply(), "@ipc.17\nid::1\nerr:n:3\n");
}

TEST_F(ClientReply, SendingDestroysTheMessage) {
    int destroyed = 0;
    sendMessage(std::make_unique<ObservedMessage>(true, &destroyed));
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(nextReply(), "@ipc.17\nid::1\ndat:json:{\"key\":\"value\"}\n");
}

TEST_F(ClientReply, NullMessageDoesNothing) {
    clearRecordedLines();
    sendMessage(nullptr);
    EXPECT_EQ(recordedText(), "");
    EXPECT_EQ(repliesSoFar(), "");
}

TEST_F(ClientReply, ClientThatIsGoneIsNoErrorButALine) {
    close(m_client);
    int destroyed = 0;
    sendMessage(std::make_unique<ObservedMessage>(true, &destroyed));
    EXPECT_TRUE(wasLogged(5, "Wrote -1 bytes to pps.")) << recordedText();
    EXPECT_EQ(destroyed, 1);
}

TEST(ClientReplyWithoutObject, WriteFailsWithALine) {
    ASSERT_EQ(clientDescriptor(), -1);
    sendMessage(std::make_unique<QuilResponseMessage>("app", "1", "@ipc.17"));
    EXPECT_TRUE(wasLogged(5, "Wrote -1 bytes to pps.")) << recordedText();
}
