#include "pushsim/readable.hpp"

std::string readable(std::string_view bytes) {
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
            case '\r':
                text += "\\r";
                break;
            case '\n':
                text += "\\n";
                break;
            case '\t':
                text += "\\t";
                break;
            case '\\':
                text += "\\\\";
                break;
            default:
                if (byte >= 0x20 && byte < 0x7f) {
                    text += c;
                } else {
                    text += "\\x";
                    text += kHex[byte >> 4];
                    text += kHex[byte & 0xf];
                }
        }
    }
    return text;
}

std::string readableLines(std::string_view bytes, std::string_view prefix) {
    std::string text;
    while (!bytes.empty()) {
        const std::size_t end = bytes.find('\n');
        const std::size_t length = end == std::string_view::npos ? bytes.size() : end + 1;
        text.append(prefix).append(readable(bytes.substr(0, length))).append("\n");
        bytes.remove_prefix(length);
    }
    return text;
}

std::string readableStart(std::string_view bytes, std::size_t limit) {
    if (bytes.size() <= limit) {
        return readable(bytes);
    }
    return readable(bytes.substr(0, limit)) + "... (" + std::to_string(bytes.size()) + " bytes)";
}
