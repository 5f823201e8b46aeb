#include "agent/pushes/allowed_senders.hpp"

#include <netdb.h>

#include <algorithm>
#include <cstring>

#include "agent/support/log.hpp"

AllowedSenders::AllowedSenders(const std::string& list) : m_list(parseNetworks(list)) {
    for (const std::string& entry : m_list.badEntries) {
        QUIL_LOG(LOG_LEVEL_WARNING, "allowed-senders: [%s] is no address and no network",
                 entry.c_str());
    }
}

bool AllowedSenders::allows(const sockaddr_storage& address) const {
    if (!isRestricting()) {
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
    return std::any_of(m_list.networks.begin(), m_list.networks.end(),
                       [&](const Network& network) { return isInside(sender, network); });
}

bool AllowedSenders::allowsPeerOf(int socket) const {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    return !isRestricting() ||
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
