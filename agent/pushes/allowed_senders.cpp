// All addresses are compared in their IPv6 form, so that an IPv4 sender is the same one whichever
// way it came.

#include "agent/pushes/allowed_senders.hpp"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>
#include <optional>
#include <sstream>

#include "agent/support/decimal.hpp"
#include "agent/support/log.hpp"

namespace {

constexpr int kAddressBits = 128;
constexpr int kMappedBits = 96;  // in front of an IPv4 address in its IPv6 form

in6_addr mapped(const in_addr& address) {
    in6_addr result{};
    result.s6_addr[10] = 0xff;
    result.s6_addr[11] = 0xff;
    std::memcpy(&result.s6_addr[12], &address, sizeof address);
    return result;
}

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

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool isInside(const in6_addr& address, const in6_addr& network, int prefix) {
    const auto bytes = static_cast<std::size_t>(prefix / 8);
    const int bits = prefix % 8;
    if (std::memcmp(&address, &network, bytes) != 0) {
        return false;
    }
    const unsigned differing = address.s6_addr[bytes % 16] ^ network.s6_addr[bytes % 16];
    return bits == 0 || (differing >> (8 - bits)) == 0;
}

}  // namespace

AllowedSenders::AllowedSenders(const std::string& list) {
    std::string text = list;
    for (char& byte : text) {
        byte = byte == ',' ? ' ' : byte;
    }
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        m_isRestricting = true;
        const std::size_t slash = word.find('/');
        Network network{};
        const std::optional<int> inFront = parseAddress(word.substr(0, slash), &network.address);
        const std::string prefix = slash == std::string::npos ? "" : word.substr(slash + 1);
        const bool isPrefixGood =
            slash == std::string::npos ||
            (isNumber(prefix) && inFront && leadingDecimal(prefix) <= kAddressBits - *inFront);
        if (!inFront || !isPrefixGood) {
            QUIL_LOG(LOG_LEVEL_WARNING, "allowed-senders: [%s] is no address and no network",
                     word.c_str());
            continue;
        }
        network.prefix =
            slash == std::string::npos ? kAddressBits : *inFront + leadingDecimal(prefix);
        m_networks.push_back(network);
    }
}

bool AllowedSenders::allows(const sockaddr_storage& address) const {
    if (!m_isRestricting) {
        return true;
    }
    in6_addr sender{};
    if (address.ss_family == AF_INET) {
        sockaddr_in ipv4{};
        std::memcpy(&ipv4, &address, sizeof ipv4);
        sender = mapped(ipv4.sin_addr);
    } else if (address.ss_family == AF_INET6) {
        sockaddr_in6 ipv6{};
        std::memcpy(&ipv6, &address, sizeof ipv6);
        sender = ipv6.sin6_addr;
    } else {
        return false;
    }
    for (const Network& network : m_networks) {
        if (isInside(sender, network.address, network.prefix)) {
            return true;
        }
    }
    return false;
}

bool AllowedSenders::allowsPeerOf(int socket) const {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    return !m_isRestricting ||
           (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0 && allows(peer));
}

std::string peerName(int socket) {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    char name[NI_MAXHOST] = {};
    const bool isKnown = getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
                         getnameinfo(reinterpret_cast<sockaddr*>(&peer), size, name, sizeof name,
                                     nullptr, 0, NI_NUMERICHOST) == 0;
    return isKnown ? name : "?";
}
