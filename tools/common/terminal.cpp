#include "tools/common/terminal.hpp"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "platform/pps/text.hpp"

namespace {

bool isSetAndNotEmpty(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

// Length of the UTF-8 sequence that `text` begins with, 0 when it is not one to be shown: the C1
// controls (U+0080 to U+009F) are valid, but terminals obey them.
std::size_t shownLength(std::string_view text) {
    const bool isC1 =
        text.size() > 1 && text[0] == '\xC2' && static_cast<unsigned char>(text[1]) < 0xA0;
    return isC1 ? 0 : ppsUtf8Length(text);
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
        const std::size_t length = shownLength(text);
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
        const std::size_t length = shownLength(text);
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
