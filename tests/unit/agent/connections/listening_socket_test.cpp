// Opening listening sockets, closing connections and sending on them.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "agent/configuration/config_manager.hpp"
#include "agent/connections/connection.hpp"
#include "agent/connections/listening_socket.hpp"
#include "agent/connections/owned_socket.hpp"
#include "tests/support/agent/server_fixture.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/scarce_memory.hpp"

namespace {

bool g_listenFails = false;

}  // namespace

// In place of the C library's, because nothing makes it fail on a socket that was bound just
// before.
int listen(int socket, int backlog) noexcept {
    if (g_listenFails) {
        errno = EADDRINUSE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_listen, socket, backlog));
}

namespace {

class Listen : public ::testing::Test {
  protected:
    Listen() : Listen("") {}
    explicit Listen(const std::string& configuration) : m_root(configuration) {
        QuilConfigManager::getInstance();
        clearRecordedLines();
    }
    ~Listen() override {
        if (m_socket != -1) {
            close(m_socket);
        }
    }

    int open() { return open(m_port.number()); }
    int open(int port) {
        m_socket = serverIfInit(port);
        return m_socket;
    }
    std::string number() const { return std::to_string(m_port.number()); }

    ServerRoot m_root;
    ReservedPort m_port;
    int m_socket = -1;
};

class ListenElsewhere : public Listen {
  protected:
    ListenElsewhere()
        : Listen("proxy-host 127.0.0.3\nlisten-address 127.0.0.2\ntransport TCPX\n") {}
};

class ListenOnProxyHost : public Listen {
  protected:
    ListenOnProxyHost() : Listen("proxy-host 127.0.0.3\n") {}
};

// The address that a socket is bound to, as "host:port".
std::string addressOf(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string failureLines(const std::string& reason, const std::string& port) {
    return "6 serverIfInit - Opening PPS file and sending register request.\n" + reason +
           "2 Error opening port " + port + "\n6 serverIfInit - Exit\n";
}

}  // namespace

TEST_F(Listen, OpensThePortAndSaysSo) {
    ASSERT_GT(open(), 0);
    EXPECT_EQ(addressOf(m_socket), "127.0.0.1:" + number());
    EXPECT_TRUE(Peer(m_port.number()).isConnected());
    EXPECT_EQ(linesOf("listening_socket.cpp"),
              "6 serverIfInit - Opening PPS file and sending register request.\n"
              "6 serverIfInit - Exit\n");
}

TEST_F(Listen, SocketIsAStreamCloseOnExecWithABacklogOf5) {
    ASSERT_GT(open(), 0);
    int value = 0;
    socklen_t size = sizeof value;
    getsockopt(m_socket, SOL_SOCKET, SO_TYPE, &value, &size);
    EXPECT_EQ(value, SOCK_STREAM);
    getsockopt(m_socket, SOL_SOCKET, SO_PROTOCOL, &value, &size);
    EXPECT_EQ(value, 6);
    EXPECT_EQ(fcntl(m_socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    tcp_info info{};
    size = sizeof info;
    getsockopt(m_socket, IPPROTO_TCP, TCP_INFO, &info, &size);
    EXPECT_EQ(info.tcpi_sacked, 5U) << "of a listening socket this is its backlog";
}

TEST_F(ListenElsewhere, ListenAddressNamesTheHost) {
    ASSERT_GT(open(), 0);
    EXPECT_EQ(addressOf(m_socket), "127.0.0.2:" + number());
}

TEST_F(ListenElsewhere, FailureNamesTransportAndListenAddress) {
    ASSERT_GT(open(), 0);
    clearRecordedLines();
    EXPECT_EQ(serverIfInit(m_port.number()), -1);
    EXPECT_EQ(linesOf("listening_socket.cpp"),
              failureLines("2 Failed to bind TCPX server socket: address='127.0.0.2:" + number() +
                               "', error='Address already in use'\n",
                           number()));
}

TEST_F(ListenOnProxyHost, ProxyHostIsTheHostWithoutAListenAddress) {
    ASSERT_GT(open(), 0);
    EXPECT_EQ(addressOf(m_socket), "127.0.0.3:" + number());
}

TEST_F(Listen, PortInUseIsAFailureThatLeavesNoDescriptor) {
    m_port.listenOnIt();
    const int before = lowestFreeDescriptor();
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(lowestFreeDescriptor(), before);
    EXPECT_EQ(linesOf("listening_socket.cpp"),
              failureLines("2 Failed to bind KVTP server socket: address='127.0.0.1:" + number() +
                               "', error='Address already in use'\n",
                           number()));
}

TEST_F(Listen, HostThatIsNotOfThisMachineIsAFailure) {
    QuilConfigManager::getInstance()->setValue("listen-address", "192.0.2.1");
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(linesOf("listening_socket.cpp"),
              failureLines("2 Failed to bind KVTP server socket: address='192.0.2.1:" + number() +
                               "', error='Cannot assign requested address'\n",
                           number()));
}

TEST_F(Listen, PortAbove65535IsAFailureThatLeavesNoDescriptor) {
    const int before = lowestFreeDescriptor();
    const int port = 65536 + m_port.number();
    EXPECT_EQ(open(port), -1);
    EXPECT_EQ(open(65536), -1);
    EXPECT_EQ(lowestFreeDescriptor(), before);
    EXPECT_FALSE(Peer(m_port.number()).isConnected());
    EXPECT_EQ(linesOf("listening_socket.cpp"),
              failureLines("2 Failed to create KVTP server sockaddr: address='127.0.0.1:" +
                               std::to_string(port) + "'\n",
                           std::to_string(port)) +
                  failureLines("2 Failed to create KVTP server sockaddr: "
                               "address='127.0.0.1:65536'\n",
                               "65536"));
}

TEST_F(Listen, HighestPortIsNoFailureOfTheAddress) {
    open(65535);
    EXPECT_FALSE(wasLogged(2, "Failed to create KVTP server sockaddr: address='127.0.0.1:65535'"));
}

TEST_F(Listen, AddressThatIsTooLongForItsBlockIsAFailureThatLeavesNoDescriptor) {
    QuilConfigManager::getInstance()->setValue("guid", std::string(300, 'x'));
    const int before = lowestFreeDescriptor();
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(lowestFreeDescriptor(), before);
    EXPECT_EQ(linesOf("listening_socket.cpp"),
              failureLines(
                  "2 Failed to create KVTP server sockaddr: address='127.0.0.1:" + number() + "'\n",
                  number()));
    // 0x19002711, a code of the transport's own.
    EXPECT_NE(recordedText().find("419440401/2 addr_lyr: UID size is too big: 301\n"),
              std::string::npos)
        << recordedText();
}

TEST_F(Listen, WantOfDescriptorsIsAFailure) {
    const DescriptorShortage shortage;
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(linesOf("listening_socket.cpp"),
              failureLines("2 Failed to create kvtp server socket: errno [24] error [Too many open "
                           "files]\n",
                           number()));
}

TEST_F(Listen, FailureOfListenItselfLeavesTheBoundSocketOpen) {
    const int next = lowestFreeDescriptor();
    g_listenFails = true;
    EXPECT_EQ(serverIfInit(m_port.number()), -1);
    const int bound = 256;  // out of the way of sockets that are waited on
    EXPECT_EQ(addressOf(bound), "127.0.0.1:" + number());
    EXPECT_EQ(lowestFreeDescriptor(), next);
    EXPECT_EQ(linesOf("listening_socket.cpp"), failureLines("3 listen socket error\n", number()));
    close(bound);
}

TEST_F(Listen, WantOfMemoryLeavesNoDescriptor) {
    QuilConfigManager::getInstance()->setValue("transport", std::string(3000, 'x'));
    const int before = lowestFreeDescriptor();
    {
        const ScarceMemory scarce(3001, 1);  // the second copy of that value
        EXPECT_THROW(serverIfInit(m_port.number()), std::bad_alloc);
        ASSERT_TRUE(scarce.hasFailed());
    }
    EXPECT_EQ(lowestFreeDescriptor(), before);
}

TEST_F(Listen, SessionSaysWhenItsSocketCannotBeWatched) {
    std::vector<std::unique_ptr<OwnedSocket>> lowNumbers;
    while (lowestFreeDescriptor() < 256) {
        lowNumbers.push_back(std::make_unique<OwnedSocket>(::open("/dev/null", O_RDONLY)));
    }
    QuilSession* session = addSession("app", "@ipc.1");
    session->getPort().setPort(m_port.number());
    session->listenOnPort();
    const int socket = session->getPort().getSocket();
    ASSERT_GE(socket, 256);
    EXPECT_TRUE(wasLogged(3, "QuilSession::listenOnPort: port[" + number() + "] fd[" +
                                 std::to_string(socket) + "] is beyond what can be watched"))
        << recordedText();
}

TEST_F(Listen, SessionMayTryAgainAfterAFailure) {
    QuilSession* session = addSession("app", "@ipc.1");
    QuilConfigManager::getInstance()->setValue("guid", std::string(300, 'x'));
    session->getPort().setPort(m_port.number());
    session->listenOnPort();
    EXPECT_EQ(session->getPort().getSocket(), -1);
    QuilConfigManager::getInstance()->setValue("guid", "");
    session->listenOnPort();
    EXPECT_GT(session->getPort().getSocket(), 0);
}

TEST(CloseConnection, ShutsReadingDownAndCloses) {
    const ServerRoot root;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(serverIfClose(ends[0]), 0);
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
    char byte = 0;
    EXPECT_EQ(read(ends[1], &byte, 1), 0);
    EXPECT_EQ(recordedText(),
              "6 serverIfClose: shutdown returned 0\n\n6 serverIfClose: close returned 0\n\n");
    close(ends[1]);
}

TEST(CloseConnection, OnlyTheReadingSideIsShutDown) {
    const ServerRoot root;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const int other = dup(ends[0]);
    serverIfClose(ends[0]);
    EXPECT_EQ(send(other, "x", 1, MSG_NOSIGNAL), 1) << "writing was shut down too";
    EXPECT_EQ(send(ends[1], "x", 1, MSG_NOSIGNAL), -1) << "reading was not shut down";
    close(other);
    close(ends[1]);
}

TEST(CloseConnection, FailureIsLoggedAndGiven) {
    const ServerRoot root;
    EXPECT_EQ(serverIfClose(-1), -1);
    EXPECT_EQ(recordedText(),
              "6 serverIfClose: shutdown returned -1\n\n6 serverIfClose: close returned -1\n\n");
}

TEST(CloseConnection, WhatCannotBeShutDownIsClosedAllTheSame) {
    const ServerRoot root;
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(serverIfClose(file), 0);
    EXPECT_EQ(fcntl(file, F_GETFD), -1);
}

TEST(SendOnConnection, GivesTheNumberOfBytesSent) {
    const ServerRoot root;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(serverIfSend(ends[0], "hello, not this", 5), 5);
    char buffer[16] = {};
    EXPECT_EQ(read(ends[1], buffer, sizeof buffer), 5);
    EXPECT_STREQ(buffer, "hello");
    close(ends[0]);
    close(ends[1]);
}

TEST(SendOnConnection, PeerThatIsGoneIsAnErrorNotASignal) {
    const ServerRoot root;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    close(ends[1]);
    EXPECT_EQ(serverIfSend(ends[0], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[0]);
}
