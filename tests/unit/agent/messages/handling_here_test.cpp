// What a writer handles in the place of the queue's reader.

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/messages/message_queue.hpp"
#include "agent/messages/reply_messages.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

constexpr int kQuick = 4;
constexpr int kSlow = 7;
constexpr int kLast = 99;  // ends the reader

bool isQuick(const QuilMessageNode& node) {
    return node.getType() == kQuick;
}

class HandlingHereTest : public SessionsTest {
  protected:
    ~HandlingHereTest() override {
        if (m_reader.joinable()) {
            push(kLast);
            m_reader.join();
        }
    }

    static void push(int type) {
        QuilMessageManager::getInstance()->push(std::make_unique<QuilMessageNode>(
            type, std::make_unique<QuilResponseMessage>("app", "", "client")));
    }
    static int takeHere() {
        const auto node = QuilMessageManager::getInstance()->takeHere(isQuick);
        return node == nullptr ? 0 : node->getType();
    }

    // Waits in the queue, and hears what it is given.
    void startReader() {
        m_reader = std::thread([this] {
            m_readerThread = gettid();
            for (int type = 0; type != kLast;) {
                type = QuilMessageManager::getInstance()->pop()->getType();
                m_read += std::to_string(type) + " ";
                m_readCount += 1;
            }
        });
        awaitReader();
    }
    void awaitReader() const {
        ASSERT_TRUE(waitUntil([this] {
            std::ifstream status("/proc/self/task/" + std::to_string(m_readerThread) + "/stat");
            std::string number;
            std::string name;
            std::string state;
            status >> number >> name >> state;
            return state == "S" &&
                   countRecorded(6, "QuilMessageManager::pop called.\n") > m_readCount;
        }));
    }

    std::atomic<pid_t> m_readerThread{0};
    std::atomic<int> m_readCount{0};
    std::string m_read;
    std::thread m_reader;
};

TEST_F(HandlingHereTest, NodesComeInTheirOrderAndWakeNobody) {
    startReader();
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    queue->keepReaderWaiting();
    push(kQuick);
    push(kQuick);
    EXPECT_EQ(takeHere(), kQuick);
    queue->handledHere();
    EXPECT_EQ(takeHere(), kQuick);
    queue->handledHere();
    EXPECT_EQ(takeHere(), 0);
    EXPECT_EQ(m_readCount, 0);
}

TEST_F(HandlingHereTest, LogTellsWhatItWouldOfTheReader) {
    startReader();
    clearRecordedLines();
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    queue->keepReaderWaiting();
    push(kQuick);
    push(kQuick);
    clearRecordedLines();
    while (takeHere() != 0) {
        queue->handledHere();
    }
    EXPECT_EQ(recordedText(),
              "6 QuilMessageManager::pop: done pthread_cond_wait rc[0]\n"
              "5 pop: size of queue 2\n\n"
              "6 QuilMessageManager::pop called.\n\n"
              "5 pop: size of queue 1\n\n"
              "6 QuilMessageManager::pop called.\n\n");
}

TEST_F(HandlingHereTest, WhatIsNotQuickIsTheReadersWithAllBehindIt) {
    startReader();
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    queue->keepReaderWaiting();
    push(kQuick);
    push(kSlow);
    push(kQuick);
    EXPECT_EQ(takeHere(), kQuick);
    queue->handledHere();
    EXPECT_EQ(takeHere(), 0);
    EXPECT_TRUE(waitUntil([this] { return m_readCount == 2; }));
    push(kLast);
    m_reader.join();
    EXPECT_EQ(m_read, "7 4 99 ");
}

TEST_F(HandlingHereTest, WhileOneIsHandledHereTheReaderWaits) {
    startReader();
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    queue->keepReaderWaiting();
    push(kQuick);
    EXPECT_EQ(takeHere(), kQuick);
    std::thread([] { push(kSlow); }).join();  // somebody else's
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(m_readCount, 0) << "it would overtake";
    queue->handledHere();
    EXPECT_EQ(takeHere(), 0);
    EXPECT_TRUE(waitUntil([this] { return m_readCount == 1; }));
}

TEST_F(HandlingHereTest, WhileTheReaderHandlesOneNothingIsTakenHere) {
    push(kSlow);
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    EXPECT_EQ(queue->pop()->getType(), kSlow);  // this thread is the reader, and at it
    queue->keepReaderWaiting();
    push(kQuick);
    EXPECT_EQ(takeHere(), 0);
    EXPECT_EQ(queue->pop()->getType(), kQuick);
}

TEST_F(HandlingHereTest, WriterThatDoesNotHandleHereWakesTheReader) {
    startReader();
    push(kQuick);
    EXPECT_TRUE(waitUntil([this] { return m_readCount == 1; }));
}

TEST_F(HandlingHereTest, WritersAndReaderTogetherLoseNothingAndHandleOneAtATime) {
    constexpr int kEach = 2000;
    std::atomic<int> atWork{0};
    std::atomic<int> handled{0};
    std::atomic<bool> isAlone{true};
    const auto handle = [&] {
        isAlone = isAlone && ++atWork == 1;
        ++handled;
        --atWork;
    };
    std::thread reader([&] {
        for (;;) {
            const auto node = QuilMessageManager::getInstance()->pop();
            if (node->getType() == kLast) {
                return;
            }
            handle();
        }
    });
    std::thread other([] {
        for (int i = 0; i < kEach; ++i) {
            push(i % 3 == 0 ? kSlow : kQuick);
        }
    });
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    for (int i = 0; i < kEach; ++i) {
        queue->keepReaderWaiting();
        push(kQuick);
        while (takeHere() != 0) {
            handle();
            queue->handledHere();
        }
    }
    other.join();
    EXPECT_TRUE(waitUntil([&] { return handled == 2 * kEach; })) << handled;
    EXPECT_TRUE(isAlone);
    push(kLast);
    reader.join();
}

}  // namespace
