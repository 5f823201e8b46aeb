// Plays the agent's end of the push object: every open gives a pair of sockets that keep message
// bounds, as the object service does. No threads: a test drives the client and the fake in turn.

#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>

#include "platform/pps/decoder.hpp"
#include "quilclient/push_client.hpp"

struct FakeRequest {
    std::string msg;
    std::string id;
    std::string appId;
    std::string ppgUrl;
    std::string launchString;
};

class FakeAgent {
  public:
    ~FakeAgent() { hangUp(); }

    // For Config::open.
    std::function<int()> opener() {
        return [this] {
            ++opens;
            if (openError != 0) {
                errno = openError;
                return -1;
            }
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
                return -1;
            }
            hangUp();
            m_end = ends[0];
            return ends[1];
        };
    }

    void hangUp() {
        if (m_end >= 0) {
            close(m_end);
        }
        m_end = -1;
    }

    // What the client wrote, oldest first; a request with an empty msg when there is nothing.
    FakeRequest take() {
        char buffer[16384];
        const ssize_t count = m_end < 0 ? 0 : recv(m_end, buffer, sizeof buffer - 1, 0);
        buffer[count < 0 ? 0 : count] = '\0';
        lastText = buffer;
        pps_decoder_t decoder;
        pps_decoder_initialize(&decoder, buffer);
        pps_decoder_push(&decoder, nullptr);
        FakeRequest request;
        pps_decoder_get_string(&decoder, "msg", &request.msg);
        pps_decoder_get_string(&decoder, "id", &request.id);
        pps_decoder_push(&decoder, "dat");
        pps_decoder_get_string(&decoder, "providerApplicationId", &request.appId);
        pps_decoder_get_string(&decoder, "ppgUrl", &request.ppgUrl);
        pps_decoder_get_string(&decoder, "launchString", &request.launchString);
        return request;
    }

    void send(const std::string& text) {
        ASSERT_EQ(::send(m_end, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    void sendReply(const std::string& msg, const std::string& id, const std::string& more = "") {
        send("@ipc\n" + (msg.empty() ? "" : "msg::" + msg + "\n") + "id::" + id + "\n" + more);
    }

    void sendPush(const std::string& id, const std::string& base64, bool senderWaits,
                  const std::string& headers = "") {
        sendReply("pushNotification", id,
                  std::string("dat:json:{\"appLevelAck\":") + (senderWaits ? "1" : "0") +
                      ",\"data\":\"" + base64 + "\"" +
                      (headers.empty() ? "" : ",\"httpHeaders\":{" + headers + "}") + "}\n");
    }

    int opens = 0;
    int openError = 0;  // errno of the opens to come; 0 lets them succeed
    std::string lastText;

  private:
    int m_end = -1;
};
