// The internal messages and the factory that makes and copies them.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "agent/messages/message_factory.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/sessions/port.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

class Messages : public SessionsTest {
  protected:
    // What the message adds to an open "dat", and its answer.
    static std::string dataOf(const QuilBaseMessage& message) {
        pps_encoder_t encoder;
        pps_encoder_initialize(&encoder, false);
        pps_encoder_start_object(&encoder, "@o");
        pps_encoder_start_object(&encoder, "dat");
        const bool isToBeWritten = message.addData(&encoder);
        pps_encoder_end_object(&encoder);
        return std::string(pps_encoder_buffer(&encoder)) + (isToBeWritten ? "1" : "0");
    }
};

class Factory : public SessionsTest {
  protected:
    // A copy made by way of a node of that type.
    static std::unique_ptr<QuilBaseMessage> copyOf(int type,
                                                   std::unique_ptr<QuilBaseMessage> message) {
        const QuilMessageNode node(type, std::move(message));
        return s_factory->copyMessage(&node);
    }

    static const QuilMessageFactory* s_factory;
};

const QuilMessageFactory* Factory::s_factory = QuilMessageFactory::getInstance();

template <typename Message>
bool isExactly(const std::unique_ptr<QuilBaseMessage>& message) {
    const QuilBaseMessage* pointer = message.get();
    return pointer != nullptr && typeid(*pointer) == typeid(Message);
}

std::unique_ptr<QuilBaseMessage> messageOf(int type) {
    switch (type) {
        case 1:
            return std::make_unique<QuilCreateSessionCompleteMessage>("app", "id", "client");
        case 2:
            return std::make_unique<QuilCreateChannelCompleteMessage>("app", "id", "client");
        case 3:
            return std::make_unique<QuilDestroyChannelCompleteMessage>("app", "id", "client");
        case 5:
            return std::make_unique<QuilPushMessage>("app", "client");
        case 7:
        case 8:
            return std::make_unique<QuilServerRegMessage>("app", "id", "client", "url");
        default:
            return std::make_unique<QuilResponseMessage>("app", "id", "client");
    }
}

}  // namespace

TEST_F(Messages, AllDeriveFromTheBaseMessageWhichIsNamed) {
    EXPECT_TRUE((std::is_base_of_v<QuilBaseObject, QuilBaseMessage>));
    EXPECT_TRUE((std::is_base_of_v<QuilBaseMessage, QuilCreateSessionCompleteMessage>));
    EXPECT_TRUE((std::is_base_of_v<QuilBaseMessage, QuilCreateChannelCompleteMessage>));
    EXPECT_TRUE((std::is_base_of_v<QuilBaseMessage, QuilDestroyChannelCompleteMessage>));
    EXPECT_TRUE((std::is_base_of_v<QuilBaseMessage, QuilResponseMessage>));
    EXPECT_TRUE((std::is_base_of_v<QuilBaseMessage, QuilServerRegMessage>));
    EXPECT_TRUE((std::is_base_of_v<QuilBaseMessage, QuilPushMessage>));
    EXPECT_FALSE((std::is_base_of_v<QuilBaseObject, QuilMessageFactory>));
    EXPECT_FALSE((std::is_base_of_v<QuilBaseObject, QuilMessageNode>));
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilMessageNode>);
}

TEST_F(Messages, BaseMessageKeepsItsArgumentsAndNothingElse) {
    const QuilBaseMessage message("app", "17", "@ipc.1");
    EXPECT_EQ(message.getName(), "app");
    EXPECT_EQ(message.getId(), "17");
    EXPECT_EQ(message.getClientId(), "@ipc.1");
    EXPECT_EQ(message.getCallbackName(), "");
    EXPECT_EQ(message.getMessageType(), 0);
    EXPECT_EQ(message.getArgument(), "");
    EXPECT_EQ(message.getErrorCode(), 0);
    EXPECT_FALSE(message.hasError());
    EXPECT_TRUE(message.hasData());
    EXPECT_EQ(dataOf(message), "@o\ndat:json:{}\n1");
}

TEST_F(Messages, ChangedFieldsReadBack) {
    QuilBaseMessage message("app", "17", "@ipc.1");
    message.setName("other");
    message.setId("18");
    message.setCallbackName("onX");
    message.setMessageType(42);
    message.setArgument("more");
    EXPECT_EQ(message.getName(), "other");
    EXPECT_EQ(message.getId(), "18");
    EXPECT_EQ(message.getCallbackName(), "onX");
    EXPECT_EQ(message.getMessageType(), 42);
    EXPECT_EQ(message.getArgument(), "more");
}

TEST_F(Messages, FirstErrorCodeWins) {
    QuilBaseMessage message("app", "17", "@ipc.1");
    message.setErrorCode(0);
    message.setErrorCode(10103);
    message.setErrorCode(10108);
    message.setErrorCode(0);
    EXPECT_EQ(message.getErrorCode(), 10103);
}

TEST_F(Messages, NegativeErrorCodeWinsToo) {
    QuilBaseMessage message("app", "17", "@ipc.1");
    message.setErrorCode(-1);
    message.setErrorCode(500);
    EXPECT_EQ(message.getErrorCode(), -1);
}

TEST_F(Messages, OverwriteReplacesAnyErrorCode) {
    QuilBaseMessage message("app", "17", "@ipc.1");
    message.setErrorCode(10103);
    message.overwriteErrorCode(500);
    EXPECT_EQ(message.getErrorCode(), 500);
    message.overwriteErrorCode(0);
    EXPECT_EQ(message.getErrorCode(), 0);
}

TEST_F(Messages, OnlyCodesAbove0AreErrors) {
    for (const int type : {1, 2, 3, 4, 5}) {
        const std::unique_ptr<QuilBaseMessage> message = messageOf(type);
        for (const int code : {-1, 0, 1, 10103}) {
            message->overwriteErrorCode(code);
            EXPECT_EQ(message->hasError(), code > 0) << "type " << type << " code " << code;
        }
    }
}

TEST_F(Messages, CreateSessionCompletionHasNameTypeAndNoData) {
    const QuilCreateSessionCompleteMessage message("app", "17", "@ipc.1");
    EXPECT_EQ(message.getCallbackName(), "onCreateSessionComplete");
    EXPECT_EQ(message.getMessageType(), 1);
    EXPECT_FALSE(message.hasData());
    EXPECT_EQ(dataOf(message), "@o\ndat:json:{}\n1");
}

TEST_F(Messages, CreateChannelCompletionCarriesTheToken) {
    QuilCreateChannelCompleteMessage message("app", "17", "@ipc.1");
    EXPECT_EQ(message.getCallbackName(), "onCreateChannelComplete");
    EXPECT_EQ(message.getMessageType(), 2);
    EXPECT_TRUE(message.hasData());
    EXPECT_EQ(dataOf(message), "@o\ndat:json:{\"token\":\"\"}\n1");
    message.setToken("2FFFFFFF");
    EXPECT_EQ(message.getToken(), "2FFFFFFF");
    EXPECT_EQ(dataOf(message), "@o\ndat:json:{\"token\":\"2FFFFFFF\"}\n1");
}

TEST_F(Messages, DestroyChannelCompletionHasNameTypeAndNoData) {
    const QuilDestroyChannelCompleteMessage message("app", "17", "@ipc.1");
    EXPECT_EQ(message.getCallbackName(), "onDestroyChannelComplete");
    EXPECT_EQ(message.getMessageType(), 3);
    EXPECT_FALSE(message.hasData());
    EXPECT_EQ(dataOf(message), "@o\ndat:json:{}\n1");
}

TEST_F(Messages, ResponseHasNoCallbackNameAndNoData) {
    const QuilResponseMessage message("app", "17", "@ipc.1");
    EXPECT_EQ(message.getCallbackName(), "");
    EXPECT_EQ(message.getMessageType(), 4);
    EXPECT_FALSE(message.hasData());
    EXPECT_EQ(dataOf(message), "@o\ndat:json:{}\n1");
}

TEST_F(Messages, RegistrationNeverHasAnErrorButHasData) {
    QuilServerRegMessage message("app", "17", "@ipc.1", "http://ppg");
    EXPECT_EQ(message.getPpgUrl(), "http://ppg");
    EXPECT_EQ(message.getMessageType(), 7);
    EXPECT_TRUE(message.isRegister());
    EXPECT_TRUE(message.hasData());
    EXPECT_EQ(dataOf(message), "@o\ndat:json:{}\n1");
    message.setErrorCode(10103);
    EXPECT_EQ(message.getErrorCode(), 10103);
    EXPECT_FALSE(message.hasError());
}

TEST_F(Messages, NodeOwnsItsMessageAndHasATypeOfItsOwn) {
    const QuilMessageNode node(7, std::make_unique<QuilResponseMessage>("app", "17", "@ipc.1"));
    EXPECT_EQ(node.getType(), 7);
    ASSERT_NE(node.getMessage(), nullptr);
    EXPECT_EQ(node.getMessage()->getMessageType(), 4);
}

TEST_F(Factory, IsOne) {
    EXPECT_EQ(QuilMessageFactory::getInstance(), s_factory);
}

TEST_F(Factory, MapsThreeNamesAndEveryOtherTo10) {
    EXPECT_EQ(s_factory->getMessageType("createSession"), 1);
    EXPECT_EQ(s_factory->getMessageType("createChannel"), 2);
    EXPECT_EQ(s_factory->getMessageType("destroyChannel"), 3);
    for (const char* name :
         {"", "onSimChange", "createsession", "createSession ", "createChannelX",
          "registerToLaunch", "unregisterFromLaunch", "acceptPush", "rejectPush"}) {
        EXPECT_EQ(s_factory->getMessageType(name), 10) << name;
    }
}

TEST_F(Factory, LogsTheNameItMaps) {
    s_factory->getMessageType("createSession");
    EXPECT_EQ(recordedText(), "5 QuilMessageFactory::getMessageType: msg [createSession]\n");
}

TEST_F(Factory, LogsTheNameItMakesAMessageFor) {
    s_factory->createMessage("x", "app", "17", "@ipc.1");
    EXPECT_EQ(recordedText(),
              "5 QuilMessageFactory::createMessage: msg [x]\n"
              "5 QuilMessageFactory::getMessageType: msg [x]\n");
}

TEST_F(Factory, MakesMessagesByName) {
    EXPECT_TRUE(isExactly<QuilCreateSessionCompleteMessage>(
        s_factory->createMessage("createSession", "app", "17", "@ipc.1")));
    EXPECT_TRUE(isExactly<QuilCreateChannelCompleteMessage>(
        s_factory->createMessage("createChannel", "app", "17", "@ipc.1")));
    EXPECT_TRUE(isExactly<QuilDestroyChannelCompleteMessage>(
        s_factory->createMessage("destroyChannel", "app", "17", "@ipc.1")));
}

TEST_F(Factory, MakesAPlainResponseOfType10ForUnknownNames) {
    const auto message = s_factory->createMessage("onSimChange", "app", "17", "@ipc.1");
    EXPECT_TRUE(isExactly<QuilResponseMessage>(message));
    EXPECT_EQ(message->getMessageType(), 10);
    EXPECT_EQ(message->getCallbackName(), "");
}

TEST_F(Factory, MakesMessagesByType) {
    EXPECT_TRUE(isExactly<QuilCreateSessionCompleteMessage>(
        s_factory->createMessage(1, "app", "17", "@ipc.1")));
    EXPECT_TRUE(isExactly<QuilCreateChannelCompleteMessage>(
        s_factory->createMessage(2, "app", "17", "@ipc.1")));
    EXPECT_TRUE(isExactly<QuilDestroyChannelCompleteMessage>(
        s_factory->createMessage(3, "app", "17", "@ipc.1")));
    EXPECT_TRUE(isExactly<QuilResponseMessage>(s_factory->createMessage(4, "app", "17", "@ipc.1")));
    EXPECT_TRUE(isExactly<QuilResponseMessage>(s_factory->createMessage(9, "app", "17", "@ipc.1")));
    EXPECT_TRUE(
        isExactly<QuilResponseMessage>(s_factory->createMessage(10, "app", "17", "@ipc.1")));
    EXPECT_EQ(recordedText(), "") << "making by type logs nothing";
}

TEST_F(Factory, MakesNothingForOtherTypes) {
    for (const int type : {-1, 0, 5, 6, 7, 8, 11, 100}) {
        EXPECT_EQ(s_factory->createMessage(type, "app", "17", "@ipc.1"), nullptr) << type;
    }
}

TEST_F(Factory, MadeMessagesCarryTypeAndArguments) {
    for (const int type : {1, 2, 3, 4, 9, 10}) {
        const auto message = s_factory->createMessage(type, "app", "17", "@ipc.1");
        ASSERT_NE(message, nullptr) << type;
        EXPECT_EQ(message->getMessageType(), type);
        EXPECT_EQ(message->getName(), "app") << type;
        EXPECT_EQ(message->getId(), "17") << type;
        EXPECT_EQ(message->getClientId(), "@ipc.1") << type;
        EXPECT_EQ(message->getErrorCode(), 0) << type;
    }
}

TEST_F(Factory, OnlyType9IsNamedOnSimChange) {
    EXPECT_EQ(s_factory->createMessage(9, "a", "i", "c")->getCallbackName(), "onSimChange");
    EXPECT_EQ(s_factory->createMessage(10, "a", "i", "c")->getCallbackName(), "");
    EXPECT_EQ(s_factory->createMessage(4, "a", "i", "c")->getCallbackName(), "");
}

TEST_F(Factory, CopyOfNoNodeIsNone) {
    EXPECT_EQ(s_factory->copyMessage(nullptr), nullptr);
    EXPECT_EQ(recordedText(), "");
}

TEST_F(Factory, CopyLogsTheNodesType) {
    copyOf(4, messageOf(4));
    EXPECT_EQ(recordedText(), "6 QuilMessageFactory::copyMessage: receive Message Type [4]\n");
}

TEST_F(Factory, CopiesAreOfTheClassOfTheNodesType) {
    EXPECT_TRUE(isExactly<QuilCreateSessionCompleteMessage>(copyOf(1, messageOf(1))));
    EXPECT_TRUE(isExactly<QuilCreateChannelCompleteMessage>(copyOf(2, messageOf(2))));
    EXPECT_TRUE(isExactly<QuilDestroyChannelCompleteMessage>(copyOf(3, messageOf(3))));
    EXPECT_TRUE(isExactly<QuilResponseMessage>(copyOf(4, messageOf(4))));
    EXPECT_TRUE(isExactly<QuilPushMessage>(copyOf(5, messageOf(5))));
    EXPECT_TRUE(isExactly<QuilServerRegMessage>(copyOf(7, messageOf(7))));
    EXPECT_TRUE(isExactly<QuilServerRegMessage>(copyOf(8, messageOf(8))));
}

TEST_F(Factory, OtherTypesAreNotCopied) {
    for (const int type : {-1, 0, 6, 9, 10, 11, 1000}) {
        EXPECT_EQ(copyOf(type, messageOf(4)), nullptr) << type;
    }
}

TEST_F(Factory, MessageOfAnotherClassThanTheTypeSaysIsNotCopied) {
    for (const int type : {1, 2, 3, 5, 7, 8}) {
        EXPECT_EQ(copyOf(type, messageOf(4)), nullptr) << type;
    }
    EXPECT_EQ(copyOf(4, messageOf(1)), nullptr);
}

TEST_F(Factory, NodeWithoutMessageIsNotCopied) {
    for (const int type : {1, 2, 3, 4, 5, 7, 8}) {
        EXPECT_EQ(copyOf(type, nullptr), nullptr) << type;
    }
}

TEST_F(Factory, CopiesCarryEveryField) {
    for (const int type : {1, 2, 3, 4, 7, 8}) {
        std::unique_ptr<QuilBaseMessage> message = messageOf(type);
        message->setCallbackName("onX");
        message->setMessageType(40 + type);
        message->setId("18");
        message->setArgument("more");
        message->setErrorCode(10103);
        const auto copy = copyOf(type, std::move(message));
        ASSERT_NE(copy, nullptr) << type;
        EXPECT_EQ(copy->getName(), "app") << type;
        EXPECT_EQ(copy->getClientId(), "client") << type;
        EXPECT_EQ(copy->getCallbackName(), "onX") << type;
        EXPECT_EQ(copy->getMessageType(), 40 + type);
        EXPECT_EQ(copy->getId(), "18") << type;
        EXPECT_EQ(copy->getArgument(), "more") << type;
        EXPECT_EQ(copy->getErrorCode(), 10103) << type;
    }
}

TEST_F(Factory, CopyOfAChannelCompletionCarriesTheToken) {
    auto message = std::make_unique<QuilCreateChannelCompleteMessage>("app", "id", "client");
    message->setToken("2FFF");
    const auto copy = copyOf(2, std::move(message));
    EXPECT_EQ(dynamic_cast<QuilCreateChannelCompleteMessage&>(*copy).getToken(), "2FFF");
}

TEST_F(Factory, CopyOfARegistrationCarriesItsDirectionAndUrl) {
    auto message = std::make_unique<QuilServerRegMessage>("app", "id", "client", "http://ppg");
    message->setRegister(false);
    const auto copy = copyOf(8, std::move(message));
    const auto& request = dynamic_cast<QuilServerRegMessage&>(*copy);
    EXPECT_FALSE(request.isRegister());
    EXPECT_EQ(request.getPpgUrl(), "http://ppg");
}

TEST_F(Factory, CopyOfAPushIsDeepAndSharesTheSocketNumber) {
    auto push = std::make_unique<QuilPushMessage>("app", "client");
    const std::string bytes = "POST /\r\nContent-Length: 2\r\nPush-Message-ID: m\r\n\r\nhi";
    push->setPayload(bytes.data(), static_cast<int>(bytes.size()));
    push->setSocket(77);
    const QuilHttpHeader* const original = push->getHttpHeaders().front().get();
    const QuilMessageNode node(5, std::move(push));
    const auto message = s_factory->copyMessage(&node);
    auto& copy = dynamic_cast<QuilPushMessage&>(*message);
    EXPECT_EQ(copy.getSocket(), 77);
    EXPECT_EQ(copy.getId(), " m");
    ASSERT_EQ(copy.getHttpHeaders().size(), 2U);
    EXPECT_NE(copy.getHttpHeaders().front().get(), original);
    copy.createData();
    EXPECT_EQ(copy.getData(), "aGk=");
}
