// The running loop: on a thread of its own, against real listening sockets, with the log as its
// trace.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "agent/clients/client_object.hpp"
#include "agent/process/event_loop.hpp"
#include "agent/requests/permissions.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/clients_fixture.hpp"

inline const std::string kWaiting = "quilAgentLoop: Waiting (select)...";
inline const std::string kPush = "POST /x\r\nContent-Length: 5\r\nPush-Message-ID:m1\r\n\r\nhello";
inline const std::string kNotification =
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
