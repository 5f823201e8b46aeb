// Lists of IP addresses and networks, as people write them.

#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

struct Network {
    std::string text;  // the entry as it was written
    in6_addr address;  // IPv4 in its IPv6 form
    int prefix;        // bits
};

struct NetworkList {
    std::vector<Network> networks;
    std::vector<std::string> badEntries;  // neither address nor network, as written

    bool isEmpty() const { return networks.empty() && badEntries.empty(); }
};

// Addresses and networks ("10.0.0.1", "192.168.0.0/16", "fe80::/10"), separated by blanks or
// commas, in their order. No name is looked up.
NetworkList parseNetworks(const std::string& list);

bool isInside(const in6_addr& address, const Network& network);

// The IPv6 form of an IPv4 address, so that a host is the same one whichever way it came.
in6_addr mapped(const in_addr& address);
