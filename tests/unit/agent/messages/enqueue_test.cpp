// Queueing messages for the message handler thread.

#include "agent/messages/enqueue.hpp"

#include <memory>
#include <string>

#include "agent/messages/reply_messages.hpp"
#include "tests/support/agent/clients_fixture.hpp"

namespace {

using AddMessage = ClientsTest;

std::unique_ptr<QuilBaseMessage> makeDestroyed(int code) {
    auto message = std::make_unique<QuilDestroyChannelCompleteMessage>("app", "1", "@ipc.17");
    message->setErrorCode(code);
    return message;
}

}  // namespace

TEST_F(AddMessage, QueuesTheMessageThatItIsGivenAndLogsBeforeAndAfter) {
    addMessage(0, 7, "app", "1", "@ipc.17",
               std::make_unique<QuilServerRegMessage>("app", "1", "@ipc.17", "http://h"));
    EXPECT_EQ(linesOf("enqueue.cpp"),
              "5 addMessage: msg type[7] provider id[app] errorCode[0]\n"
              "5 addMessage: for provider app id[app] error[0] done.\n");
    EXPECT_EQ(drainQueue(), "type=7 app=app id=1 client=@ipc.17 err=0 url=http://h register\n");
}

TEST_F(AddMessage, WithoutAMessageMakesTheReplyOfTheType) {
    for (const int type : {1, 2, 3, 4, 9, 10}) {
        addMessage(5, type, "app", "1", "@ipc.17", nullptr);
    }
    EXPECT_EQ(drainQueue(),
              "type=1 app=app id=1 client=@ipc.17 err=5\n"
              "type=2 app=app id=1 client=@ipc.17 err=5 token=\n"
              "type=3 app=app id=1 client=@ipc.17 err=5\n"
              "type=4 app=app id=1 client=@ipc.17 err=5\n"
              "type=9 app=app id=1 client=@ipc.17 err=5\n"
              "type=10 app=app id=1 client=@ipc.17 err=5\n");
}

TEST_F(AddMessage, OfATypeWithoutAReplyStopsSilently) {
    for (const int type : {0, 5, 6, 7, 8, 11, -1}) {
        clearRecordedLines();
        addMessage(5, type, "app", "1", "@ipc.17", nullptr);
        EXPECT_EQ(linesOf("enqueue.cpp"), "5 addMessage: msg type[" + std::to_string(type) +
                                              "] provider id[app] errorCode[5]\n");
    }
    EXPECT_EQ(drainQueue(), "");
}

TEST_F(AddMessage, OverwritesTheCodeThatTheMessageCarries) {
    addMessage(0, 3, "app", "1", "@ipc.17", makeDestroyed(77));
    addMessage(88, 3, "app", "1", "@ipc.17", makeDestroyed(77));
    EXPECT_EQ(drainQueue(),
              "type=3 app=app id=1 client=@ipc.17 err=0\n"
              "type=3 app=app id=1 client=@ipc.17 err=88\n");
}

TEST_F(AddMessage, QueuesUnderTheMessagesOwnType) {
    addMessage(0, 2, "app", "1", "@ipc.17", makeDestroyed(0));
    EXPECT_EQ(drainQueue(), "type=3 app=app id=1 client=@ipc.17 err=0\n");
}

TEST_F(AddMessage, FailedQueuePushIsLoggedAndTheMessageIsGone) {
    drainQueue();  // there is a queue, with its first block
    {
        // The queue takes its memory in blocks of 512 bytes; a few nodes fill the first.
        const FailingAllocations noBlocks(512, 512);
        for (int i = 0; i < 130 && !wasLogged(5, "addMessage: for provider app id[app] failed.");
             ++i) {
            addReplyMessage(0, 4, "app", "1", "@ipc.17");
        }
    }
    EXPECT_EQ(countRecorded(5, "addMessage: for provider app id[app] failed."), 1);
    EXPECT_TRUE(
        wasLogged(3, "QuilMessageManager::push: exception occurred when adding message node [4]"));
    const int done = countRecorded(5, "addMessage: for provider app id[app] error[0] done.");
    std::string expected;
    for (int i = 0; i < done; ++i) {
        expected += "type=4 app=app id=1 client=@ipc.17 err=0\n";
    }
    EXPECT_EQ(drainQueue(), expected);
}

TEST_F(AddMessage, AddReplyMessageQueuesTheReplyOfTheType) {
    addReplyMessage(10104, 10, "app", "1", "@ipc.17");
    EXPECT_EQ(drainQueue(), "type=10 app=app id=1 client=@ipc.17 err=10104\n");
}

TEST_F(AddMessage, AddErrorReplyTakesTheTypeFromTheRequestName) {
    for (const char* name : {"createSession", "createChannel", "destroyChannel", "registerToLaunch",
                             "unregisterFromLaunch", "acceptPush", "", "onSimChange"}) {
        addErrorReply(10002, name, "", "1", "@ipc.17");
        EXPECT_TRUE(
            wasLogged(5, "QuilMessageFactory::getMessageType: msg [" + std::string(name) + "]"));
    }
    const std::string type10 = "type=10 app= id=1 client=@ipc.17 err=10002\n";
    EXPECT_EQ(drainQueue(),
              "type=1 app= id=1 client=@ipc.17 err=10002\n"
              "type=2 app= id=1 client=@ipc.17 err=10002 token=\n"
              "type=3 app= id=1 client=@ipc.17 err=10002\n" +
                  type10 + type10 + type10 + type10 + type10);
}
