// A push data server that gives the answers a test lays out, and a session "app" to register with
// it.

#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "agent/registration/server_registration.hpp"
#include "tests/support/agent/server_fixture.hpp"

class PushDataServer {
  public:
    PushDataServer() {
        m_server.Get("/.*", [this](const httplib::Request& request, httplib::Response& response) {
            serve(request, response);
        });
        m_port = m_server.bind_to_any_port("127.0.0.1");
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        waitUntil([this] { return m_server.is_running(); });
    }
    ~PushDataServer() { stop(); }

    // Ends the server; its port then refuses connections.
    void stop() {
        if (m_thread.joinable()) {
            m_server.stop();
            m_thread.join();
        }
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port); }

    // Lays out the answer to the next request that has none yet. Requests beyond get status 599.
    void answer(const std::string& body, std::optional<int> port = {},
                std::function<void()> before = {}, httplib::Headers headers = {},
                int status = 200) {
        if (port.has_value()) {
            headers.emplace("vex-device-ovra-port", std::to_string(*port));
        }
        const std::lock_guard lock(m_lock);
        m_answers.push_back({body, std::move(headers), status, std::move(before)});
    }
    void answerStatus(int status, const std::string& body) { answer(body, {}, {}, {}, status); }

    // What was asked since the last call, one target per line.
    std::string asked() {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_asked, "");
    }

  private:
    struct Answer {
        std::string body;
        httplib::Headers headers;
        int status;
        std::function<void()> before;
    };

    void serve(const httplib::Request& request, httplib::Response& response) {
        const std::lock_guard lock(m_lock);
        m_asked += request.target + "\n";
        if (m_answers.empty()) {
            response.status = 599;
            return;
        }
        const Answer answer = std::move(m_answers.front());
        m_answers.pop_front();
        if (answer.before) {
            answer.before();
        }
        for (const auto& [name, value] : answer.headers) {
            response.set_header(name, value);
        }
        response.status = answer.status;
        response.set_content(answer.body, "text/plain");
    }

    std::mutex m_lock;
    std::deque<Answer> m_answers;  // under m_lock
    std::string m_asked;           // under m_lock
    httplib::Server m_server;
    int m_port = -1;
    std::thread m_thread;
};

class ServerRegistration : public ::testing::Test {
  protected:
    // Each gives the result code that the message ends with.
    int registerChannel() { return registerChannel(m_server.url()); }
    int registerChannel(const std::string& ppgUrl) {
        QuilServerRegMessage message("app", "7", "@ipc.1", ppgUrl);
        processServerRegister(message);
        return message.getErrorCode();
    }
    int deregisterChannel() {
        QuilServerRegMessage message("app", "7", "@ipc.1", m_server.url());
        message.setRegister(false);
        processServerDeregister(message);
        return message.getErrorCode();
    }
    int registerOnPort(int port) {
        m_server.answer("param=1");
        m_server.answer("rc=200", port);
        return registerChannel();
    }
    int registerWithPortHeader(const std::string& value) {
        m_server.answer("param=1");
        m_server.answer("rc=200", {}, {}, {{"vex-device-ovra-port", value}});
        return registerChannel();
    }
    // In one step, and in the second of two.
    int registerInOneStep(const std::string& answer) {
        m_server.answer(answer);
        return registerChannel();
    }
    int registerInTwoSteps(const std::string& answer) {
        m_server.answer("param=1");
        return registerInOneStep(answer);
    }

    ServerRoot m_root;
    PushDataServer m_server;
    QuilSession* m_session = addSession("app", "@ipc.1");
};
