// Who may push.

#include "agent/pushes/allowed_senders.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/recorded_log.hpp"
#include "tests/unit/agent/pushes/push_listener_fixture.hpp"

namespace {

sockaddr_storage addressOf(const std::string& text) {
    sockaddr_storage address{};
    sockaddr_in ipv4{};
    sockaddr_in6 ipv6{};
    if (inet_pton(AF_INET, text.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        std::memcpy(&address, &ipv4, sizeof ipv4);
    } else if (inet_pton(AF_INET6, text.c_str(), &ipv6.sin6_addr) == 1) {
        ipv6.sin6_family = AF_INET6;
        std::memcpy(&address, &ipv6, sizeof ipv6);
    }
    return address;
}

bool allows(const std::string& list, const std::string& address) {
    return AllowedSenders(list).allows(addressOf(address));
}

class RestrictedListener : public PushListener {
  protected:
    explicit RestrictedListener(const std::string& list = "10.0.0.0/8")
        : PushListener("push-timeout 20\nallowed-senders " + list + "\n") {}
};

class OwnListener : public RestrictedListener {
  protected:
    OwnListener() : RestrictedListener("192.0.2.1, 127.0.0.0/8") {}
};

}  // namespace

TEST(AllowedSenders, EmptyListAllowsEverybody) {
    EXPECT_FALSE(AllowedSenders("").isRestricting());
    EXPECT_FALSE(AllowedSenders("  ,").isRestricting());
    EXPECT_TRUE(allows("", "10.0.0.1"));
    EXPECT_TRUE(allows("", "::1"));
}

TEST(AllowedSenders, AddressAllowsItselfAlone) {
    EXPECT_TRUE(allows("10.0.0.1", "10.0.0.1"));
    EXPECT_FALSE(allows("10.0.0.1", "10.0.0.2"));
    EXPECT_TRUE(allows("::1", "::1"));
    EXPECT_FALSE(allows("::1", "::2"));
    EXPECT_FALSE(allows("10.0.0.1", "::1"));
}

TEST(AllowedSenders, NetworkAllowsWhatLiesInIt) {
    EXPECT_TRUE(allows("192.168.0.0/16", "192.168.255.255"));
    EXPECT_FALSE(allows("192.168.0.0/16", "192.169.0.0"));
    EXPECT_TRUE(allows("10.1.2.128/25", "10.1.2.200"));
    EXPECT_FALSE(allows("10.1.2.128/25", "10.1.2.127"));
    EXPECT_TRUE(allows("fe80::/10", "febf::1"));
    EXPECT_FALSE(allows("fe80::/10", "fec0::1"));
    EXPECT_TRUE(allows("0.0.0.0/0", "203.0.113.9"));
    EXPECT_FALSE(allows("0.0.0.0/0", "2001:db8::1"));
    EXPECT_TRUE(allows("::/0", "203.0.113.9"));
    EXPECT_TRUE(allows("10.0.0.1/32", "10.0.0.1"));
    EXPECT_TRUE(allows("::1/128", "::1"));
}

TEST(AllowedSenders, Ipv4SenderIsTheSameInItsIpv6Form) {
    EXPECT_TRUE(allows("10.0.0.0/8", "::ffff:10.1.2.3"));
    EXPECT_TRUE(allows("::ffff:10.1.2.3", "10.1.2.3"));
}

TEST(AllowedSenders, EntriesStandBetweenBlanksAndCommas) {
    const std::string list = "10.0.0.1, 10.0.0.2 10.0.0.3,10.0.0.4";
    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) {
        EXPECT_TRUE(allows(list, address)) << address;
    }
    EXPECT_FALSE(allows(list, "10.0.0.5"));
}

TEST(AllowedSenders, BadEntriesAreNamedAndAllowNobody) {
    for (const char* word : {"host.example", "10.0.0", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/-1",
                             "10.0.0.0/x", "::/129", "/8", "10.0.0.0/99999999999"}) {
        clearRecordedLines();
        EXPECT_FALSE(allows(word, "10.0.0.1")) << word;
        EXPECT_TRUE(wasLogged(
            3, "allowed-senders: [" + std::string(word) + "] is no address and no network"))
            << recordedText();
    }
    EXPECT_TRUE(allows("host.example 10.0.0.1", "10.0.0.1"));
}

TEST_F(RestrictedListener, OtherSendersAreClosedUnreadWithOneLineASecond) {
    for (int i = 0; i < 3; ++i) {
        const Peer sender(portNumber());
        sender.trySend(kExample);
        process();
        EXPECT_TRUE(sender.seesClose());
    }
    EXPECT_FALSE(isQueued());
    EXPECT_EQ(linesOf("push_intake.cpp"),
              "3 serverIfProcessData: sender [127.0.0.1] may not push (1 refused since the last "
              "line)\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(1050));
    const Peer sender(portNumber());
    process();
    EXPECT_TRUE(wasLogged(3,
                          "serverIfProcessData: sender [127.0.0.1] may not push (3 refused since "
                          "the last line)"))
        << recordedText();
}

TEST_F(OwnListener, SendersOnTheListArePushingAsEver) {
    const Peer sender(portNumber());
    sender.send(kExample);
    process();
    EXPECT_NE(takePush(), nullptr);
}
