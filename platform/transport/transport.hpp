// The proxied transport: the two calls that take the place of socket(2) and bind(2) for its family.
// Every other call on such a socket (listen, accept, recv, send, fcntl, shutdown, close) is the
// ordinary one.
//
// On Linux the transport is TCP on an address of this machine. Its address block:
//
//     offset 0  total length of the block        offset 6  handler length h, its NUL included
//            1  family, 187                             7  host length n, its NUL included
//            2  6                                       8  unique-id length u, its NUL included
//            3  0                                       9  handler, host and id, then a spare byte
//            4  port, 16 bits, processor's order

#pragma once

#include <cstddef>
#include <cstdint>

constexpr int TRANSPORT_FAMILY = 187;

// A stream socket of the transport, close-on-exec, with SO_REUSEADDR (never SO_REUSEPORT): a port
// can be taken again while connections of before are still open or dying. As long as none of them
// listens, several such sockets can be bound to one port; the first that listens has it, and keeps
// the others off. -1 with errno: EAFNOSUPPORT for another family, EPROTOTYPE for another type,
// EPROTONOSUPPORT for another protocol than TCP or 0, or what socket(2) gives. The caller owns the
// descriptor.
int transportSocket(int family, int type, int protocol);

// Binds a socket made by transportSocket to the host and port of the block and makes it
// non-blocking, so that a connection that goes away between select and accept cannot hang a loop
// (accepted sockets are blocking). The host is a numeric IPv4 or IPv6 address or "localhost"
// (127.0.0.1); names are never looked up; "::ffff:127.0.0.1" is the IPv4 address that it holds. 0,
// or -1 with errno: EINVAL when the lengths of the block do not add up, EAFNOSUPPORT for another
// family, EADDRNOTAVAIL for a host that is no address of this machine (multicast and broadcast
// addresses are nobody's, and a link-local one is incomplete), or what bind(2) gives.
int transportBind(int socket, const void* address, std::size_t length);
