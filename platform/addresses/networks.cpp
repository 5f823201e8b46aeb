// All addresses are compared in their IPv6 form, so that an IPv4 host is the same one whichever
// way it came.

#include "platform/addresses/networks.hpp"

#include <arpa/inet.h>

#include <charconv>
#include <cstring>
#include <optional>
#include <sstream>
#include <system_error>

namespace {

constexpr int kAddressBits = 128;
constexpr int kMappedBits = 96;  // in front of an IPv4 address in its IPv6 form

// Gives the number of bits in front of the address itself: 96 for IPv4, 0 for IPv6.
std::optional<int> parseAddress(const std::string& text, in6_addr* address) {
    in_addr ipv4{};
    if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1) {
        *address = mapped(ipv4);
        return kMappedBits;
    }
    if (inet_pton(AF_INET6, text.c_str(), address) == 1) {
        return 0;
    }
    return std::nullopt;
}

// Digits alone; a sign is none.
std::optional<int> parsePrefix(const std::string& text, int largest) {
    int prefix = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, prefix);
    const bool isGood = error == std::errc() && stop == end && text[0] != '-' && prefix <= largest;
    return isGood ? std::optional<int>(prefix) : std::nullopt;
}

std::optional<Network> parseNetwork(const std::string& text) {
    Network network{text, {}, kAddressBits};
    const std::size_t slash = text.find('/');
    const std::optional<int> inFront = parseAddress(text.substr(0, slash), &network.address);
    if (!inFront) {
        return std::nullopt;
    }
    if (slash != std::string::npos) {
        const std::optional<int> prefix =
            parsePrefix(text.substr(slash + 1), kAddressBits - *inFront);
        if (!prefix) {
            return std::nullopt;
        }
        network.prefix = *inFront + *prefix;
    }
    return network;
}

}  // namespace

NetworkList parseNetworks(const std::string& list) {
    std::string text = list;
    for (char& byte : text) {
        byte = byte == ',' ? ' ' : byte;
    }
    NetworkList result;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (const std::optional<Network> network = parseNetwork(word)) {
            result.networks.push_back(*network);
        } else {
            result.badEntries.push_back(word);
        }
    }
    return result;
}

bool isInside(const in6_addr& address, const Network& network) {
    const auto bytes = static_cast<std::size_t>(network.prefix / 8);
    const int bits = network.prefix % 8;
    if (std::memcmp(&address, &network.address, bytes) != 0) {
        return false;
    }
    const unsigned differing = address.s6_addr[bytes % 16] ^ network.address.s6_addr[bytes % 16];
    return bits == 0 || (differing >> (8 - bits)) == 0;
}

in6_addr mapped(const in_addr& address) {
    in6_addr result{};
    result.s6_addr[10] = 0xff;
    result.s6_addr[11] = 0xff;
    std::memcpy(&result.s6_addr[12], &address, sizeof address);
    return result;
}
