// A push that has been read, and the sender that waits behind it.

#pragma once

#include <sys/socket.h>

#include <memory>
#include <string>

#include "agent/messages/push_message.hpp"
#include "tests/support/agent/clients_fixture.hpp"

class PushDeliveryTest : public ClientsTest {
  protected:
    PushDeliveryTest() { serveObject(); }

    // The sender's end of a connection; `accepted` gets the agent's.
    static int openConnection(int* accepted) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        *accepted = ends[0];
        return ends[1];
    }

    // The push of the golden files; its id is " m1".
    static std::unique_ptr<QuilPushMessage> makePush(int socket) {
        const std::string bytes =
            "POST /x HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m1\r\n\r\nhello";
        auto push = std::make_unique<QuilPushMessage>("app", "@ipc.17");
        push->setPayload(bytes.data(), static_cast<int>(bytes.size()));
        push->createData();
        push->setSocket(socket);
        return push;
    }
};
