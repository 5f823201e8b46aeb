// The address under which a listening socket of the proxied transport is bound.

#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

struct QuilFree {
    void operator()(void* block) const { std::free(block); }
};

// A length-prefixed socket address on the heap.
using QuilSocketAddress = std::unique_ptr<unsigned char[], QuilFree>;

// Builds the address block that names a connection handler, a host, a unique id and a port
// (docs/formats/socket_address.md shows its bytes). Each string may be null, which leaves it out.
// Writes the block's length to `lengthOut`. Null when a string with its NUL exceeds 255 bytes, when
// the block would exceed 255 bytes (both leave `lengthOut` alone), or when there is no memory; the
// reason goes to the system log. Safe on any thread.
QuilSocketAddress addr_lyr(std::uint32_t* lengthOut, const char* handler, const char* host,
                           const char* uniqueId, std::uint16_t port);
