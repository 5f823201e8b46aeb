// The queue between the threads: order, waiting, refusals.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/scarce_memory.hpp"

namespace {

std::atomic<int> g_waitResult{0};

// The standard library's deque keeps its elements in blocks of this size.
constexpr std::size_t kQueueBlockBytes = 512;

class Queue : public SessionsTest {
  protected:
    static int push(int type, const std::string& id = "") {
        return QuilMessageManager::getInstance()->push(std::make_unique<QuilMessageNode>(
            type, std::make_unique<QuilResponseMessage>("app", id, "client")));
    }
    static std::unique_ptr<QuilMessageNode> pop() {
        return QuilMessageManager::getInstance()->pop();
    }

    // Pushes that push again and again until the queue needs a new block and gets none.
    template <typename MakeNode>
    static void pushUntilMemoryFails(MakeNode makeNode) {
        ASSERT_NE(QuilMessageManager::getInstance(), nullptr);
        const ScarceMemory memory(kQueueBlockBytes);
        for (int count = 0; count < 1000; ++count) {
            if (QuilMessageManager::getInstance()->push(makeNode()) == 0) {
                return;
            }
        }
        FAIL() << "the queue never asked for another block";
    }
};

}  // namespace

// A wait that fails cannot be made to happen otherwise (the linker puts this in front).
extern "C" int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
extern "C" int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    const int result = g_waitResult.exchange(0);
    return result != 0 ? result : __real_pthread_cond_wait(condition, mutex);
}

TEST_F(Queue, IsOneRootObject) {
    EXPECT_EQ(QuilMessageManager::getInstance(), QuilMessageManager::getInstance());
    EXPECT_FALSE((std::is_base_of_v<QuilBaseObject, QuilMessageManager>));
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilMessageManager>);
}

TEST_F(Queue, IsNullWithoutMemoryForIt) {
    const ScarceMemory memory(kQueueBlockBytes);
    EXPECT_EQ(QuilMessageManager::getInstance(), nullptr);
    EXPECT_TRUE(memory.hasFailed());
}

TEST_F(Queue, NullIsRefusedAndChangesNothing) {
    EXPECT_EQ(QuilMessageManager::getInstance()->push(nullptr), 0);
    EXPECT_EQ(recordedText(), "3 QuilMessageManager::push -- attempt to add NULL message node\n");
    push(4);
    EXPECT_EQ(pop()->getType(), 4);
}

TEST_F(Queue, GivesNodesInTheOrderOfTheirPush) {
    for (int type = 0; type < 300; ++type) {
        EXPECT_EQ(push(type), 1);
    }
    for (int type = 0; type < 300; ++type) {
        ASSERT_EQ(pop()->getType(), type);
    }
}

TEST_F(Queue, LogsEachStep) {
    push(4);
    push(5);
    pop();
    pop();
    EXPECT_EQ(recordedText(),
              "6 QuilMessageManager::push: return_code = 1\n"
              "6 QuilMessageManager::push: return_code = 1\n"
              "6 QuilMessageManager::pop called.\n\n"
              "5 pop: size of queue 2\n\n"
              "6 QuilMessageManager::pop called.\n\n"
              "5 pop: size of queue 1\n\n");
}

TEST_F(Queue, PopGivesTheVeryNode) {
    auto node = std::make_unique<QuilMessageNode>(
        4, std::make_unique<QuilResponseMessage>("app", "id", "client"));
    const QuilMessageNode* const pushed = node.get();
    const QuilBaseMessage* const message = node->getMessage();
    QuilMessageManager::getInstance()->push(std::move(node));
    const std::unique_ptr<QuilMessageNode> popped = pop();
    EXPECT_EQ(popped.get(), pushed);
    EXPECT_EQ(popped->getMessage(), message);
}

TEST_F(Queue, PopWaitsForTheNextPush) {
    std::atomic<bool> isDone{false};
    int type = 0;
    std::thread reader([&] {
        type = pop()->getType();
        isDone = true;
    });
    EXPECT_TRUE(waitForLogged(6, "QuilMessageManager::pop called.\n"));
    EXPECT_FALSE(isDone);
    push(4);
    reader.join();
    EXPECT_EQ(type, 4);
    EXPECT_TRUE(wasLogged(5, "pop: size of queue 1\n")) << recordedText();
}

TEST_F(Queue, FailedWaitIsLoggedAndRepeated) {
    g_waitResult = EINVAL;
    int type = 0;
    std::thread reader([&] { type = pop()->getType(); });
    EXPECT_TRUE(waitForLogged(2, "pthread_cond_wait: rc[22]")) << recordedText();
    push(4);
    reader.join();
    EXPECT_EQ(type, 4);
    EXPECT_TRUE(wasLogged(6, "QuilMessageManager::pop: done pthread_cond_wait rc[22]"))
        << recordedText();
}

TEST_F(Queue, GoodWaitIsLoggedAtDebugAlone) {
    std::thread reader([] { pop(); });
    // Waits once at least, unless the push comes first; so push only when the reader sleeps.
    EXPECT_TRUE(waitForLogged(6, "QuilMessageManager::pop called.\n"));
    bool hasWaited = false;
    for (int round = 0; round < 20 && !hasWaited; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        push(4);
        waitUntil([] { return recordedText().find("size of queue") != std::string::npos; });
        hasWaited = wasLogged(6, "QuilMessageManager::pop: done pthread_cond_wait rc[0]");
        if (!hasWaited) {
            reader.join();
            clearRecordedLines();
            reader = std::thread([] { pop(); });
        }
    }
    reader.join();
    EXPECT_TRUE(hasWaited);
    EXPECT_FALSE(wasLogged(2, "pthread_cond_wait: rc[0]")) << recordedText();
}

TEST_F(Queue, OutOfMemoryRefusesTheNodeAndSaysSo) {
    pushUntilMemoryFails([] {
        return std::make_unique<QuilMessageNode>(
            4, std::make_unique<QuilResponseMessage>("app", "", ""));
    });
    EXPECT_TRUE(
        wasLogged(3, "QuilMessageManager::push: exception occurred when adding message node [4]"))
        << recordedText();
    EXPECT_TRUE(wasLogged(6, "QuilMessageManager::push: return_code = 0")) << recordedText();
}

TEST_F(Queue, QueueWorksOnAfterItRanOutOfMemory) {
    int pushed = 0;
    pushUntilMemoryFails(
        [&pushed] { return std::make_unique<QuilMessageNode>(++pushed, nullptr); });
    push(pushed);
    for (int type = 1; type <= pushed; ++type) {
        ASSERT_EQ(pop()->getType(), type);
    }
}

TEST_F(Queue, PushThatCannotBeQueuedHasItsConnectionClosed) {
    std::unique_ptr<Connected> last;
    pushUntilMemoryFails([&last] {
        if (last != nullptr) {
            last->here = -1;  // queued; closed below
        }
        last = std::make_unique<Connected>();
        auto push = std::make_unique<QuilPushMessage>("app", "client");
        push->setSocket(last->here);
        return std::make_unique<QuilMessageNode>(5, std::move(push));
    });
    EXPECT_FALSE(isOpen(last->here));
    EXPECT_TRUE(last->isClosedWithoutAByte());
    last->here = -1;
}

TEST_F(Queue, PushWithoutConnectionThatCannotBeQueuedClosesNothing) {
    pushUntilMemoryFails([] {
        return std::make_unique<QuilMessageNode>(5, std::make_unique<QuilPushMessage>("a", "c"));
    });
    EXPECT_EQ(recordedText().find("serverIfClose"), std::string::npos) << recordedText();
}

TEST_F(Queue, TwoWritersLoseNothingAndKeepTheirOrder) {
    constexpr int kEach = 500;
    const auto write = [](const std::string& name) {
        for (int number = 0; number < kEach; ++number) {
            push(4, name + std::to_string(number));
        }
    };
    std::thread one(write, "a");
    std::thread two(write, "b");
    int nextOfA = 0;
    int nextOfB = 0;
    for (int count = 0; count < 2 * kEach; ++count) {
        const std::string id = pop()->getMessage()->getId();
        int& next = id[0] == 'a' ? nextOfA : nextOfB;
        ASSERT_EQ(id.substr(1), std::to_string(next));
        ++next;
    }
    one.join();
    two.join();
    EXPECT_EQ(nextOfA + nextOfB, 2 * kEach);
}

// Standard output that nobody reads holds up whoever writes it, and nobody else.
TEST(QueueEcho, ReaderThatIsHeldUpByTheEchoDoesNotHoldUpPush) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int output = dup(STDOUT_FILENO);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    const std::string filling(4096, 'x');
    while (write(ends[1], filling.data(), filling.size()) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    std::fflush(stdout);
    dup2(ends[1], STDOUT_FILENO);
    std::printf("something to show");
    std::thread reader([] { QuilMessageManager::getInstance()->pop(); });
    // Lines of this verbosity alone are shown, and push has none.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until it is held up
    auto pushed = std::async(std::launch::async, [] {
        return QuilMessageManager::getInstance()->push(
            std::make_unique<QuilMessageNode>(4, nullptr));
    });
    const bool isDone = pushed.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    // Let go, whatever came of it.
    std::thread drain([&] {
        std::string bytes(65536, '\0');
        while (read(ends[0], bytes.data(), bytes.size()) > 0) {
        }
    });
    reader.join();
    std::fflush(stdout);
    dup2(output, STDOUT_FILENO);
    close(ends[1]);
    drain.join();
    EXPECT_TRUE(isDone);
    EXPECT_EQ(pushed.get(), 1);
}

// What is pushed waits with its sender while the queue is long, and the loop learns when it is not.
TEST_F(Queue, ManyNodesAreACrowdAndFewOfThemWakeTheLoop) {
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(dup2(ends[1], STDIN_FILENO), STDIN_FILENO);  // where wake-ups go without a loop
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    for (int i = 0; i < 255; ++i) {
        push(4);
    }
    EXPECT_FALSE(queue->isCrowded());
    push(4);
    EXPECT_TRUE(queue->isCrowded());
    for (int i = 0; i < 256 - 128; ++i) {
        pop();
    }
    EXPECT_EQ(readAvailable(ends[0]), "");
    pop();
    EXPECT_EQ(readAvailable(ends[0]), "a");
    pop();
    EXPECT_EQ(readAvailable(ends[0]), "") << "woken more than once";
    EXPECT_FALSE(queue->isCrowded());
}

// Who asks has a turn with the object service and none in here: what is read ahead is little.
TEST_F(Queue, ManyRequestsHoldOthersBackAndFewOfThemWakeTheLoop) {
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(dup2(ends[1], STDIN_FILENO), STDIN_FILENO);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    for (int i = 0; i < 15; ++i) {
        push(MESSAGE_RESPONSE);
    }
    EXPECT_FALSE(queue->hasManyRequests());
    push(MESSAGE_SERVER_REGISTER);
    EXPECT_TRUE(queue->hasManyRequests());
    EXPECT_FALSE(queue->isCrowded());
    for (int i = 0; i < 8; ++i) {
        pop();
    }
    EXPECT_EQ(readAvailable(ends[0]), "");
    pop();
    EXPECT_EQ(readAvailable(ends[0]), "a");
    pop();
    EXPECT_EQ(readAvailable(ends[0]), "") << "woken more than once";
    EXPECT_FALSE(queue->hasManyRequests());
}

TEST_F(Queue, PushesHoldNoRequestBack) {
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    for (int i = 0; i < 256; ++i) {
        push(MESSAGE_PUSH);
    }
    EXPECT_TRUE(queue->isCrowded());
    EXPECT_FALSE(queue->hasManyRequests());
    for (int i = 0; i < 256; ++i) {
        pop();
    }
}

TEST_F(Queue, NobodyIsWokenWhoWasNotHeldBack) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(dup2(ends[1], STDIN_FILENO), STDIN_FILENO);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    for (int i = 0; i < 300; ++i) {
        push(4);
    }
    for (int i = 0; i < 300; ++i) {
        pop();
    }
    EXPECT_EQ(readAvailable(ends[0]), "");
}
