// Every length is one byte in the block, so everything is checked against 255 before a byte is
// written.
//
// The messages go straight to the system log under a code of the transport's own, not through the
// agent's logging call: they are filed with the transport's.

#include "agent/connections/socket_address.hpp"

#include <cstring>

#include "agent/support/log.hpp"
#include "platform/slog/slog.hpp"
#include "platform/transport/transport.hpp"

namespace {

constexpr std::uint32_t kSlogCode = 0x19002711;
constexpr std::size_t kLargestLength = 255;  // what one byte can say
constexpr std::size_t kFixedBytes = 9;
// One byte more than the fields need. Kept on purpose: peers of the transport know the block by
// this length.
constexpr std::size_t kSpareBytes = 1;

std::size_t lengthWithNul(const char* text) {
    return text == nullptr ? 0 : std::strlen(text) + 1;
}

unsigned char* appendString(unsigned char* at, const char* text, std::size_t length) {
    if (text != nullptr) {
        std::memcpy(at, text, length);
    }
    return at + length;
}

}  // namespace

QuilSocketAddress addr_lyr(std::uint32_t* lengthOut, const char* handler, const char* host,
                           const char* uniqueId, std::uint16_t port) {
    const std::size_t handlerLength = lengthWithNul(handler);
    const std::size_t hostLength = lengthWithNul(host);
    const std::size_t idLength = lengthWithNul(uniqueId);
    if (handlerLength > kLargestLength) {
        slogf(kSlogCode, LOG_LEVEL_ERROR, "addr_lyr: Handler size is too big: %d\n",
              static_cast<int>(handlerLength));
        return nullptr;
    }
    if (hostLength > kLargestLength) {
        slogf(kSlogCode, LOG_LEVEL_ERROR, "addr_lyr: Host name size is too big: %d\n",
              static_cast<int>(hostLength));
        return nullptr;
    }
    if (idLength > kLargestLength) {
        slogf(kSlogCode, LOG_LEVEL_ERROR, "addr_lyr: UID size is too big: %d\n",
              static_cast<int>(idLength));
        return nullptr;
    }
    const std::size_t total = handlerLength + hostLength + idLength + kFixedBytes + kSpareBytes;
    if (total > kLargestLength) {
        slogf(kSlogCode, LOG_LEVEL_ERROR, "addr_lyr: Total size is too big: %d\n",
              static_cast<int>(total));
        return nullptr;
    }
    *lengthOut = static_cast<std::uint32_t>(total);
    QuilSocketAddress block(static_cast<unsigned char*>(std::calloc(total, 1)));
    if (block == nullptr) {
        slogf(kSlogCode, LOG_LEVEL_ERROR, "addr_lyr: Memory allocation failed for slyr: size =%d\n",
              static_cast<int>(total));
        return nullptr;
    }
    block[0] = static_cast<unsigned char>(total);
    block[1] = TRANSPORT_FAMILY;
    block[2] = 6;  // these two are fixed by the transport
    block[3] = 0;
    std::memcpy(&block[4], &port, sizeof port);  // in the processor's own order
    block[6] = static_cast<unsigned char>(handlerLength);
    block[7] = static_cast<unsigned char>(hostLength);
    block[8] = static_cast<unsigned char>(idLength);
    unsigned char* at = appendString(&block[kFixedBytes], handler, handlerLength);
    at = appendString(at, host, hostLength);
    appendString(at, uniqueId, idLength);
    return block;
}
