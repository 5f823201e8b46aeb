// Plays the agent on a live mount: serves the push object, answers requests from a thread of its
// own, and sends pushes when a test says so.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/pps/decoder.hpp"
#include "tests/support/ppsd_mount.hpp"

struct ServedRequest {
    std::string client;  // "@ipc.ID"
    std::string msg;
    std::string id;
    std::string argument;  // ppgUrl or launchString
};

class ServedAgent {
  public:
    explicit ServedAgent(const PpsdMount& ppsd) {
        mkdir(ppsd.path("/services").c_str(), 0755);
        mkdir(ppsd.path("/services/push").c_str(), 0755);
        m_object = open(ppsd.path("/services/push/ipc?server").c_str(),
                        O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        EXPECT_GE(m_object, 0) << "cannot serve the push object";
        m_thread = std::thread([this] { serve(); });
    }
    ~ServedAgent() {
        m_isOver = true;
        m_thread.join();
        close(m_object);
    }
    ServedAgent(const ServedAgent&) = delete;
    ServedAgent& operator=(const ServedAgent&) = delete;

    // What follows "id" in the answers to `msg` from now on, such as "err:n:500\n". The text
    // "silent" keeps the answer back.
    void answerWith(const std::string& msg, const std::string& more) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_more[msg] = more;
    }

    // Waits for the next request with `msg` that was not taken yet; msg is empty when none came.
    ServedRequest take(const std::string& msg) {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (int i = 0; i < 200; ++i) {
            ServedRequest request = takeLocked(msg);
            if (!request.msg.empty()) {
                return request;
            }
            m_arrived.wait_for(lock, std::chrono::milliseconds(100));
        }
        return {};
    }

    // The same without waiting.
    ServedRequest takeNow(const std::string& msg) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return takeLocked(msg);
    }

    // To everybody, or to one client.
    void send(const std::string& text, const std::string& client = "@ipc") {
        const std::string message = client + "\n" + text;
        EXPECT_EQ(write(m_object, message.data(), message.size()),
                  static_cast<ssize_t>(message.size()));
    }

    void push(const std::string& id, const std::string& base64, bool senderWaits,
              const std::string& headers = "\"A\":\" 1\"") {
        send("msg::pushNotification\nid::" + id +
             "\ndat:json:{\"appLevelAck\":" + (senderWaits ? "1" : "0") + ",\"data\":\"" + base64 +
             "\",\"httpHeaders\":{" + headers + "}}\n");
    }

  private:
    ServedRequest takeLocked(const std::string& msg) {
        for (auto entry = m_requests.begin(); entry != m_requests.end(); ++entry) {
            if (entry->msg == msg) {
                ServedRequest request = *entry;
                m_requests.erase(entry);
                return request;
            }
        }
        return {};
    }

    void serve() {
        while (!m_isOver) {
            pollfd entry{m_object, POLLIN, 0};
            if (poll(&entry, 1, 20) <= 0) {
                continue;
            }
            char buffer[8193];
            const ssize_t count = read(m_object, buffer, sizeof buffer - 1);
            if (count > 0) {
                buffer[count] = '\0';
                handle(buffer);
            }
        }
    }

    void handle(const char* text) {
        pps_decoder_t decoder;
        pps_decoder_initialize(&decoder, text);
        ServedRequest request;
        request.client = pps_decoder_name(&decoder);
        pps_decoder_push(&decoder, nullptr);
        pps_decoder_get_string(&decoder, "msg", &request.msg);
        pps_decoder_get_string(&decoder, "id", &request.id);
        pps_decoder_push(&decoder, "dat");
        pps_decoder_get_string(&decoder, "ppgUrl", &request.argument);
        pps_decoder_get_string(&decoder, "launchString", &request.argument);
        if (request.msg.empty()) {
            return;
        }
        answer(request);
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(request);
        m_arrived.notify_all();
    }

    void answer(const ServedRequest& request) {
        static const std::map<std::string, std::string> callbacks = {
            {"createSession", "msg::onCreateSessionComplete\n"},
            {"createChannel", "msg::onCreateChannelComplete\n"},
            {"destroyChannel", "msg::onDestroyChannelComplete\n"},
            {"queryChannel", "msg::onQueryChannelComplete\n"},
            {"registerToLaunch", ""},
            {"unregisterFromLaunch", ""}};
        const auto callback = callbacks.find(request.msg);
        std::string tail;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            tail = m_more[request.msg];
        }
        if (callback != callbacks.end() && tail != "silent") {
            send(callback->second + "id::" + request.id + "\n" + tail, request.client);
        }
    }

    int m_object = -1;
    std::atomic<bool> m_isOver{false};
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::vector<ServedRequest> m_requests;         // guarded by m_mutex
    std::map<std::string, std::string> m_more = {  // guarded by m_mutex
        {"createChannel", "dat:json:{\"token\":\"2a3b\"}\n"},
        {"queryChannel",
         "dat:json:{\"registered\":0,\"listening\":0,\"port\":0,\"token\":\"\",\"ppgUrl\":\"\"}"
         "\n"}};
    std::thread m_thread;
};
