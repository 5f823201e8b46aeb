#include "client/base64.hpp"

#include <cstdint>

namespace quilclient {

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::optional<std::string> decodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::size_t padding = 0;
    while (padding < 2 && !text.empty() && text.back() == '=') {
        text.remove_suffix(1);
        ++padding;
    }
    std::string bytes;
    bytes.reserve(text.size() * 3 / 4);
    std::uint32_t bits = 0;
    unsigned held = 0;  // number of bits that wait in `bits`
    for (const char letter : text) {
        const std::size_t value = kAlphabet.find(letter);
        if (value == std::string_view::npos) {
            return std::nullopt;
        }
        bits = (bits << 6U) | static_cast<std::uint32_t>(value);
        held += 6;
        if (held >= 8) {
            held -= 8;
            bytes += static_cast<char>(static_cast<unsigned char>(bits >> held));
            bits &= (1U << held) - 1U;
        }
    }
    // Left-over bits that are not zero belong to no byte: such text was damaged.
    return bits == 0 ? std::optional<std::string>(std::move(bytes)) : std::nullopt;
}

}  // namespace quilclient
