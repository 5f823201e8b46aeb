// Who may push: the key "allowed-senders".

#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <vector>

class AllowedSenders {
  public:
    // Addresses and networks ("10.0.0.1", "192.168.0.0/16", "fe80::/10"), separated by blanks or
    // commas. An entry that is neither is left out, with a line in the log; what is left counts, so
    // that a list of nothing but such entries allows nobody.
    explicit AllowedSenders(const std::string& list);

    // An empty list restricts nobody.
    bool isRestricting() const { return m_isRestricting; }
    // Whether the peer of a connected socket may push.
    bool allowsPeerOf(int socket) const;
    bool allows(const sockaddr_storage& address) const;

  private:
    struct Network {
        in6_addr address;  // IPv4 in its IPv6 form
        int prefix;        // bits
    };

    bool m_isRestricting = false;
    std::vector<Network> m_networks;
};

// The peer's address as text, "?" when there is none.
std::string peerName(int socket);
