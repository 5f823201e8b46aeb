// A range of ports, and which of them nobody on this machine uses.

#pragma once

#include <cstdint>
#include <string>

struct PortRange {
    std::uint16_t from = 0;
    std::uint16_t to = 0;  // the last one, included
};

// Reads "FROM-TO" or one port. False for anything else, for 0 and for an empty range.
bool parsePortRange(const std::string& text, PortRange* range);

// True when a device could listen on the port now: on any IPv4 address, at the moment of the call.
bool isPortFree(std::uint16_t port);
