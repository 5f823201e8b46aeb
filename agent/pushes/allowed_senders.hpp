// Who may push: the key "allowed-senders".

#pragma once

#include <sys/socket.h>

#include <string>

#include "platform/addresses/networks.hpp"

class AllowedSenders {
  public:
    // `list` as parseNetworks() reads it. A bad entry is left out, with a line in the log; what is
    // left counts, so that a list of nothing but such entries allows nobody.
    explicit AllowedSenders(const std::string& list);

    // An empty list restricts nobody.
    bool isRestricting() const { return !m_list.isEmpty(); }
    // Whether the peer of a connected socket may push.
    bool allowsPeerOf(int socket) const;
    bool allows(const sockaddr_storage& address) const;

  private:
    NetworkList m_list;
};

// The peer's address as text, "?" when there is none.
std::string peerName(int socket);
