// Lists of addresses and networks.

#include "platform/addresses/networks.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

// "good, good | bad, bad"
std::string parsed(const std::string& list) {
    const NetworkList result = parseNetworks(list);
    std::string text;
    for (const Network& network : result.networks) {
        text += network.text + "=" + std::to_string(network.prefix) + " ";
    }
    text += "|";
    for (const std::string& entry : result.badEntries) {
        text += " " + entry;
    }
    return text;
}

bool isInside(const std::string& address, const std::string& network) {
    in_addr parsed{};
    EXPECT_EQ(inet_pton(AF_INET, address.c_str(), &parsed), 1);
    return isInside(mapped(parsed), parseNetworks(network).networks.at(0));
}

}  // namespace

TEST(Networks, EntriesKeepTheirOrderAndBadOnesStandApart) {
    EXPECT_EQ(parsed("10.0.0.1, foo 192.168.0.0/16,::1\tfe80::/10 bar\r"),
              "10.0.0.1=128 192.168.0.0/16=112 ::1=128 fe80::/10=10 | foo bar");
    EXPECT_TRUE(parseNetworks(" ,,\t").isEmpty());
    EXPECT_FALSE(parseNetworks("foo").isEmpty());
}

TEST(Networks, PrefixesAreDigitsWithinTheAddress) {
    EXPECT_EQ(parsed("0.0.0.0/0 10.0.0.0/008 10.0.0.1/32 ::/128"),
              "0.0.0.0/0=96 10.0.0.0/008=104 10.0.0.1/32=128 ::/128=128 |");
    for (const std::string bad :
         {"10.0.0.0/33", "::/129", "10.0.0.0/", "10.0.0.0/-1", "10.0.0.0/-0", "10.0.0.0/+8",
          "10.0.0.0/8x", "10.0.0.0/8/8", "10.0.0.0/99999999999", "/8", "10.0.0", "host.example"}) {
        EXPECT_EQ(parsed(bad), "| " + bad);
    }
}

TEST(Networks, HoldWhatBeginsWithTheirPrefix) {
    EXPECT_TRUE(isInside("10.1.2.200", "10.1.2.128/25"));
    EXPECT_FALSE(isInside("10.1.2.127", "10.1.2.128/25"));
    EXPECT_TRUE(isInside("10.1.2.3", "::ffff:10.0.0.0/104"));
    EXPECT_TRUE(isInside("10.1.2.3", "::/0"));
    EXPECT_FALSE(isInside("10.1.2.3", "10.1.2.4"));
}
