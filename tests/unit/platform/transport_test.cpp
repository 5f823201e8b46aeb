// The transport stand-in: what its two calls make, and which address blocks bind refuses.

#include "platform/transport/transport.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string block(const std::string& host, std::uint16_t port, const std::string& handler = "h",
                  const std::string& id = "") {
    std::string bytes(9, '\0');
    const std::string strings = handler + '\0' + host + '\0' + id + '\0';
    bytes[0] = static_cast<char>(9 + strings.size() + 1);
    bytes[1] = static_cast<char>(187);
    bytes[2] = 6;
    std::memcpy(&bytes[4], &port, 2);
    bytes[6] = static_cast<char>(handler.size() + 1);
    bytes[7] = static_cast<char>(host.size() + 1);
    bytes[8] = static_cast<char>(id.size() + 1);
    return bytes + strings + '\0';
}

class Transport : public ::testing::Test {
  protected:
    Transport() : m_socket(transportSocket(187, SOCK_STREAM, 6)) {}
    ~Transport() override { close(m_socket); }

    // 0, or the errno of the refusal.
    int bindTo(const std::string& bytes) {
        return transportBind(m_socket, bytes.data(), bytes.size()) == 0 ? 0 : errno;
    }

    // The IPv4 address and port that the socket has, "(not IPv4)" where it is of another family.
    std::string addressOfSocket() {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
        return address.sin_family == AF_INET ? textOf(address) : "(not IPv4)";
    }

    static std::string textOf(const sockaddr_in& address) {
        char text[INET_ADDRSTRLEN];
        return std::string(inet_ntop(AF_INET, &address.sin_addr, text, sizeof text)) +
               (address.sin_port == 0 ? "" : " bound");
    }

    int m_socket;
};

// The broadcast address of every network that this machine is in.
std::vector<std::string> broadcastAddresses() {
    std::vector<std::string> found;
    ifaddrs* first = nullptr;
    EXPECT_EQ(getifaddrs(&first), 0);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        sockaddr_in address{};
        sockaddr_in mask{};
        std::memcpy(&address, entry->ifa_addr, sizeof address);
        std::memcpy(&mask, entry->ifa_netmask, sizeof mask);
        address.sin_addr.s_addr |= ~mask.sin_addr.s_addr;
        if (ntohl(~mask.sin_addr.s_addr) > 1) {  // networks of one or two addresses have none
            char text[INET_ADDRSTRLEN];
            found.emplace_back(inet_ntop(AF_INET, &address.sin_addr, text, sizeof text));
        }
    }
    freeifaddrs(first);
    return found;
}

int lowestFreeDescriptor() {
    const int found = dup(STDERR_FILENO);
    close(found);
    return found;
}

}  // namespace

TEST_F(Transport, SocketIsCloseOnExecAndReusesAddresses) {
    ASSERT_GE(m_socket, 0);
    EXPECT_EQ(fcntl(m_socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    int on = 0;
    socklen_t size = sizeof on;
    getsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, &size);
    EXPECT_EQ(on, 1);
    getsockopt(m_socket, SOL_SOCKET, SO_REUSEPORT, &on, &size);
    EXPECT_EQ(on, 0);
}

TEST(TransportSocket, RefusesWhatIsNotTheTransport) {
    EXPECT_EQ(transportSocket(AF_INET, SOCK_STREAM, 6), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(transportSocket(187, SOCK_DGRAM, 6), -1);
    EXPECT_EQ(errno, EPROTOTYPE);
    EXPECT_EQ(transportSocket(187, SOCK_STREAM, 17), -1);
    EXPECT_EQ(errno, EPROTONOSUPPORT);
}

TEST_F(Transport, BoundSocketIsNonBlockingAndItsConnectionsAreBlocking) {
    ASSERT_EQ(bindTo(block("127.0.0.1", 0)), 0);
    ASSERT_EQ(listen(m_socket, 5), 0);
    EXPECT_EQ(fcntl(m_socket, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(accept(m_socket, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), size), 0);
    const int accepted = accept(m_socket, nullptr, nullptr);
    ASSERT_GE(accepted, 0);
    EXPECT_EQ(fcntl(accepted, F_GETFL) & O_NONBLOCK, 0);
    close(accepted);
    close(client);
}

TEST_F(Transport, PortIsInTheProcessorsOrder) {
    // A free port, found by the system and then asked for by number.
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t size = sizeof address;
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
    const std::uint16_t port = ntohs(address.sin_port);
    close(probe);
    ASSERT_EQ(bindTo(block("localhost", port)), 0);
    getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
    EXPECT_EQ(ntohs(address.sin_port), port);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(Transport, BindsAnIpv6Host) {
    const int probe = socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 loopback{};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    const bool hasIpv6 =
        probe >= 0 && bind(probe, reinterpret_cast<sockaddr*>(&loopback), sizeof loopback) == 0;
    close(probe);
    if (!hasIpv6) {
        GTEST_SKIP() << "this machine has no IPv6 loopback";
    }
    const int nextFree = dup(m_socket);
    close(nextFree);
    // Any address: the one host for which the kernel would take IPv4 in as well.
    ASSERT_EQ(bindTo(block("::", 0)), 0);
    EXPECT_EQ(fcntl(nextFree, F_GETFD), -1) << "a descriptor is left";
    for (const auto& [level, option] : {std::pair<int, int>{SOL_SOCKET, SO_REUSEADDR},
                                        std::pair<int, int>{IPPROTO_IPV6, IPV6_V6ONLY}}) {
        int on = 0;
        socklen_t onSize = sizeof on;
        EXPECT_EQ(getsockopt(m_socket, level, option, &on, &onSize), 0);
        EXPECT_EQ(on, 1) << "option " << option;
    }
    sockaddr_in6 address{};
    socklen_t size = sizeof address;
    getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
    EXPECT_EQ(address.sin6_family, AF_INET6);
    EXPECT_EQ(fcntl(m_socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(Transport, PortInUseIsAnError) {
    ASSERT_EQ(bindTo(block("127.0.0.1", 0)), 0);
    ASSERT_EQ(listen(m_socket, 5), 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
    const std::string bytes = block("127.0.0.1", ntohs(address.sin_port));
    const int second = transportSocket(187, SOCK_STREAM, 6);
    EXPECT_EQ(transportBind(second, bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    close(second);
}

TEST_F(Transport, NamesAndForeignAddressesAreNotAvailable) {
    EXPECT_EQ(bindTo(block("example.invalid", 0)), EADDRNOTAVAIL);
    EXPECT_EQ(bindTo(block("", 0)), EADDRNOTAVAIL);
    EXPECT_EQ(bindTo(block("192.0.2.1", 0)), EADDRNOTAVAIL);
}

TEST_F(Transport, MulticastAddressesAreNotAvailable) {
    for (const char* host : {"224.0.0.1", "239.255.1.2", "ff02::1", "ff0e::1234"}) {
        EXPECT_EQ(bindTo(block(host, 0)), EADDRNOTAVAIL) << host;
    }
}

TEST_F(Transport, BroadcastAddressesAreNotAvailable) {
    std::vector<std::string> hosts = broadcastAddresses();
    ASSERT_FALSE(hosts.empty()) << "this machine has no network, not even a loopback one";
    hosts.emplace_back("255.255.255.255");
    for (const std::string& host : hosts) {
        EXPECT_EQ(bindTo(block(host, 0)), EADDRNOTAVAIL) << host;
    }
}

TEST_F(Transport, RefusedSocketCanStillBeBoundAndNoDescriptorIsLeft) {
    const int nextFree = lowestFreeDescriptor();
    for (const char* host : {"224.0.0.1", "255.255.255.255", "ff02::1", "fe80::1", "192.0.2.1"}) {
        EXPECT_EQ(bindTo(block(host, 0)), EADDRNOTAVAIL) << host;
    }
    EXPECT_EQ(lowestFreeDescriptor(), nextFree);
    EXPECT_EQ(addressOfSocket(), "0.0.0.0") << "it is bound already";
    EXPECT_EQ(bindTo(block("127.0.0.1", 0)), 0);
    EXPECT_EQ(addressOfSocket(), "127.0.0.1 bound");
}

TEST_F(Transport, AnyLoopbackAddressCanBeBound) {
    EXPECT_EQ(bindTo(block("127.1.2.3", 0)), 0);
    EXPECT_EQ(addressOfSocket(), "127.1.2.3 bound");
}

TEST_F(Transport, BindsWithoutADescriptorToSpare) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(lowestFreeDescriptor());
    setrlimit(RLIMIT_NOFILE, &none);
    const int error = bindTo(block("127.0.0.1", 0));
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(error, 0);
}

TEST_F(Transport, Ipv4AddressInIpv6NotationIsThatIpv4Address) {
    EXPECT_EQ(bindTo(block("::ffff:127.0.0.1", 0)), 0);
    EXPECT_EQ(addressOfSocket(), "127.0.0.1 bound");
}

TEST_F(Transport, ForeignIpv4AddressInIpv6NotationIsNotAvailable) {
    for (const char* host : {"::ffff:192.0.2.1", "::ffff:224.0.0.1", "::ffff:255.255.255.255"}) {
        EXPECT_EQ(bindTo(block(host, 0)), EADDRNOTAVAIL) << host;
    }
}

// Such an address is complete only with the name of a network interface, which the block has no
// place for.
TEST_F(Transport, LinkLocalIpv6AddressIsNotAvailable) {
    EXPECT_EQ(bindTo(block("fe80::1", 0)), EADDRNOTAVAIL);
}

TEST_F(Transport, OnlyListeningKeepsOthersWhoReuseAddressesOffAPort) {
    ASSERT_EQ(bindTo(block("127.0.0.1", 0)), 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
    const std::string bytes = block("127.0.0.1", ntohs(address.sin_port));
    const int second = transportSocket(187, SOCK_STREAM, 6);
    EXPECT_EQ(transportBind(second, bytes.data(), bytes.size()), 0) << std::strerror(errno);
    EXPECT_EQ(listen(second, 5), 0) << std::strerror(errno);
    EXPECT_EQ(listen(m_socket, 5), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    const int third = transportSocket(187, SOCK_STREAM, 6);
    EXPECT_EQ(transportBind(third, bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    close(third);
    close(second);
}

TEST_F(Transport, LengthsThatDoNotAddUpAreInvalid) {
    const std::string good = block("127.0.0.1", 0);
    EXPECT_EQ(bindTo(good.substr(0, good.size() - 1)), EINVAL);
    EXPECT_EQ(bindTo(good + '\0'), EINVAL);
    EXPECT_EQ(bindTo(good.substr(0, 9)), EINVAL);
    EXPECT_EQ(bindTo(""), EINVAL);
    for (const std::size_t lengthField : {0U, 6U, 7U, 8U}) {
        std::string bad = good;
        ++bad[lengthField];
        EXPECT_EQ(bindTo(bad), EINVAL) << lengthField;
        bad[lengthField] = static_cast<char>(good[lengthField] - 1);
        EXPECT_EQ(bindTo(bad), EINVAL) << lengthField << ", one less";
    }
}

TEST_F(Transport, StringWithoutItsNulOrWithOneInsideIsInvalid) {
    std::string bad = block("127.0.0.1", 0, "handler");
    bad[9 + 3] = '\0';
    EXPECT_EQ(bindTo(bad), EINVAL);
    bad = block("127.0.0.1", 0, "handler");
    bad[9 + 7] = 'x';
    EXPECT_EQ(bindTo(bad), EINVAL);
}

TEST_F(Transport, BlockOfAnotherFamilyIsRefused) {
    std::string bad = block("127.0.0.1", 0);
    bad[1] = 2;
    EXPECT_EQ(bindTo(bad), EAFNOSUPPORT);
}

TEST_F(Transport, AbsentHandlerAndIdAreAccepted) {
    std::string bytes(9, '\0');
    const std::string host("127.0.0.1\0", 10);
    bytes[0] = static_cast<char>(9 + host.size() + 1);
    bytes[1] = static_cast<char>(187);
    bytes[7] = static_cast<char>(host.size());
    EXPECT_EQ(bindTo(bytes + host + '\0'), 0);
}
