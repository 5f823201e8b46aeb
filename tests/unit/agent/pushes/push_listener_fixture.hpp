// A session "app" of client "@ipc.1" that listens on a port of its own, and what the listener makes
// of the connections to it.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/configuration/config_manager.hpp"
#include "agent/connections/connection.hpp"
#include "agent/connections/owned_socket.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/pushes/push_intake.hpp"
#include "tests/support/agent/server_fixture.hpp"
#include "tests/support/recorded_log.hpp"

// A push of 65 bytes, 60 of them its header block.
inline const std::string kExample =
    "POST /x HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m1\r\n\r\nhello";

// Every descriptor with a number below `end`, from `first` on, that the limit leaves; held as long
// as the result lives.
inline std::vector<std::unique_ptr<OwnedSocket>> takeDescriptors(int first = 0, int end = INT_MAX) {
    std::vector<std::unique_ptr<OwnedSocket>> all;
    for (;;) {
        auto next = std::make_unique<OwnedSocket>(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, first));
        if (next->get() == -1 || next->get() >= end) {
            return all;
        }
        all.push_back(std::move(next));
    }
}

class PushListener : public ::testing::Test {
  protected:
    explicit PushListener(const std::string& configuration = "push-timeout 20\n")
        : m_root(configuration) {
        QuilConfigManager::getInstance();
        openPushIntake();
        const int high = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 256);
        close(high);
        m_nextHigh = high;
        m_session = addSession("app", "@ipc.1");
        m_session->getPort().setPort(m_reserved.number());
        m_session->listenOnPort();
        clearRecordedLines();
    }
    ~PushListener() override {
        while (isQueued()) {
            takePush();
        }
    }

    int portNumber() const { return m_reserved.number(); }
    int listener() const { return m_session->getPort().getSocket(); }
    bool hasWaitingConnection(double seconds) const {
        pollfd watched = {listener(), POLLIN, 0};
        return poll(&watched, 1, static_cast<int>(seconds * 1000)) == 1;
    }
    // As the event loop does it: once the listening socket is readable, and then until nothing is
    // set aside any more.
    void process() {
        ASSERT_TRUE(hasWaitingConnection(10)) << "nobody connected";
        serverIfProcessData(&m_session->getPort());
        serveSetAside();
    }
    void serveSetAside() {
        while (countSetAsideConnections() > 0) {
            ASSERT_TRUE(serveOnce(30)) << "a connection was set aside and never came back";
        }
    }
    // False when the intake has nothing to do within that time.
    bool serveOnce(double seconds) {
        pollfd watched = {openPushIntake(), POLLIN, 0};
        int ready = 0;
        do {
            ready = poll(&watched, 1, static_cast<int>(seconds * 1000));
        } while (ready == -1 && errno == EINTR);
        if (ready != 1) {
            return false;
        }
        servePushIntake();
        return true;
    }
    // Processes a connection; once `line` (level 5) has been logged, `then` runs beside it.
    template <typename Then>
    void processAnd(const std::string& line, Then then) {
        std::thread beside([&line, &then] {
            if (waitForLogged(5, line)) {
                then();
            }
        });
        process();
        beside.join();
    }

    bool isQueued() const {
        return countRecorded(6, "QuilMessageManager::push: return_code = 1") > m_taken;
    }
    // The oldest push in the queue, null when there is none. Its connection is closed with the
    // test.
    std::unique_ptr<QuilPushMessage> takePush() {
        if (!isQueued()) {
            return nullptr;
        }
        ++m_taken;
        const std::unique_ptr<QuilMessageNode> node = QuilMessageManager::getInstance()->pop();
        EXPECT_EQ(node->getType(), 5);
        auto* push = dynamic_cast<QuilPushMessage*>(node->getMessage());
        if (push == nullptr) {
            return nullptr;
        }
        if (push->getSocket() != -1) {
            m_kept.push_back(std::make_unique<Kept>(push->getSocket()));
        }
        return std::make_unique<QuilPushMessage>(*push);
    }
    // The connection of the oldest push in the queue, which is the caller's then; -1 for none.
    int takeConnection() {
        if (!isQueued()) {
            return -1;
        }
        ++m_taken;
        const std::unique_ptr<QuilMessageNode> node = QuilMessageManager::getInstance()->pop();
        const auto* push = dynamic_cast<const QuilPushMessage*>(node->getMessage());
        return push == nullptr ? -1 : push->getSocket();
    }
    // The data part of a push as base64, or "error CODE".
    static std::string encoded(QuilPushMessage* push) {
        push->createData();
        return push->getErrorCode() == 0 ? push->getData()
                                         : "error " + std::to_string(push->getErrorCode());
    }

    // The number that the next accepted connection will have.
    int m_nextHigh = -1;
    ServerRoot m_root;
    ReservedPort m_reserved;
    QuilSession* m_session = nullptr;

  private:
    struct Kept {
        explicit Kept(int number) : socket(number) {}
        ~Kept() { close(socket); }
        Kept(const Kept&) = delete;
        Kept& operator=(const Kept&) = delete;
        int socket;
    };

    int m_taken = 0;
    std::vector<std::unique_ptr<Kept>> m_kept;
};
