#include "tools/common/terminal.hpp"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace {

bool isSetAndNotEmpty(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

// Length of the UTF-8 sequence that stands at `text`, 0 when there is none. Good enough to decide
// about showing: the C1 controls (U+0080 to U+009F) count as none, as terminals obey them.
std::size_t sequenceLength(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    const auto second = static_cast<unsigned char>(text[1]);
    const bool isControl = lead == 0xC2 && second < 0xA0;
    const bool isOverlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool isOutside = (lead == 0xED && second >= 0xA0) || (lead == 0xF4 && second >= 0x90);
    return isControl || isOverlong || isOutside ? 0 : length;
}

bool isControl(char byte) {
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || code == 0x7F;
}

std::string escaped(char byte) {
    switch (byte) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        case '\\':
            return "\\\\";
        default:
            break;
    }
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02x",
                  static_cast<unsigned>(static_cast<unsigned char>(byte)));
    return text;
}

}  // namespace

Style::Style(std::FILE* stream) {
    const char* terminal = std::getenv("TERM");
    const bool isDumb = terminal != nullptr && std::string_view(terminal) == "dumb";
    m_isColoured = isatty(fileno(stream)) == 1 && !isDumb && !isSetAndNotEmpty("NO_COLOR");
}

std::string Style::paint(std::string_view code, std::string_view text) const {
    if (!m_isColoured) {
        return std::string(text);
    }
    return std::string("\x1b[").append(code).append("m").append(text).append("\x1b[0m");
}

std::string visible(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0 || isControl(text[0]) || text[0] == '\\') {
            out += escaped(text[0]);
            text.remove_prefix(1);
        } else {
            out += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return out;
}

bool isReadable(std::string_view text) {
    while (!text.empty()) {
        const char byte = text[0];
        const std::size_t length = sequenceLength(text);
        const bool isLayout = byte == '\n' || byte == '\t' || byte == '\r';
        if (length == 0 || (isControl(byte) && !isLayout)) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string wrapped(std::string_view text, std::size_t first, std::size_t indent,
                    std::size_t width) {
    std::string out;
    std::size_t column = first;
    bool isAtStart = true;  // of a line
    while (!text.empty()) {
        const std::size_t blank = text.find(' ');
        const std::string_view word = text.substr(0, blank);
        if (!isAtStart && column + 1 + word.size() > width) {
            out.append("\n").append(indent, ' ');
            column = indent;
        } else if (!isAtStart) {
            out += ' ';
            ++column;
        }
        out += word;
        column += word.size();
        isAtStart = false;
        text.remove_prefix(blank == std::string_view::npos ? text.size() : blank + 1);
    }
    return out;
}

std::string encodeBase64(std::string_view bytes) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            const bool isThere = at + i < bytes.size();
            group = (group << 8U) | (isThere ? static_cast<unsigned char>(bytes[at + i]) : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            const bool isPadding = at + i > bytes.size();
            out += isPadding ? '=' : kAlphabet[(group >> (18U - 6U * i)) & 63U];
        }
    }
    return out;
}
