#include "platform/pps/text.hpp"

#include <array>
#include <cstdint>
#include <cstdio>

namespace {

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

bool isControl(char byte) {
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || code == 0x7F;
}

bool isAscii(char byte) {
    return static_cast<unsigned char>(byte) < 0x80;
}

// Characters that are in a JSON string as they are.
constexpr std::array<bool, 256> kStandsForItself = [] {
    std::array<bool, 256> table{};
    for (std::size_t code = 0x20; code < 0x7F; ++code) {
        table[code] = code != '"' && code != '\\';
    }
    return table;
}();

bool standsForItself(char byte) {
    return kStandsForItself[static_cast<unsigned char>(byte)];
}

// How many bytes at the beginning stand for themselves. Long texts are looked at in blocks, without
// a branch for each byte: that takes a tenth of the time.
std::size_t countPlain(std::string_view text) {
    constexpr std::size_t kBlock = 32;
    std::size_t count = 0;
    for (; count + kBlock <= text.size(); count += kBlock) {
        const char* const block = text.data() + count;
        unsigned char isOther = 0;
        for (std::size_t i = 0; i < kBlock; ++i) {
            const auto code = static_cast<unsigned char>(block[i]);
            isOther |= static_cast<unsigned char>((code < 0x20) | (code >= 0x7F) | (code == '"') |
                                                  (code == '\\'));
        }
        if (isOther != 0) {
            break;
        }
    }
    while (count < text.size() && standsForItself(text[count])) {
        ++count;
    }
    return count;
}

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

int hexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

bool isOctal(char digit) {
    return digit >= '0' && digit <= '7';
}

// Reads the numeric escape at text[at] ('x' or an octal digit). Gives the byte and moves `at`
// behind it.
char readNumericEscape(std::string_view text, std::size_t& at) {
    unsigned value = 0;
    if (text[at] == 'x') {
        ++at;
        for (int digits = 0; digits < 2 && at < text.size() && hexDigit(text[at]) >= 0; ++digits) {
            value = value * 16 + static_cast<unsigned>(hexDigit(text[at++]));
        }
    } else {
        for (int digits = 0; digits < 3 && at < text.size() && isOctal(text[at]); ++digits) {
            value = value * 8 + static_cast<unsigned>(text[at++] - '0');
        }
    }
    return static_cast<char>(static_cast<unsigned char>(value));
}

char simpleEscape(char letter) {
    switch (letter) {
        case 'a':
            return '\a';
        case 'b':
            return '\b';
        case 'f':
            return '\f';
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        case 'v':
            return '\v';
        default:
            return letter;
    }
}

void appendJsonEscape(std::string& out, char byte) {
    switch (byte) {
        case '"':
            out += "\\\"";
            return;
        case '\\':
            out += "\\\\";
            return;
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04x",
                  static_cast<unsigned>(static_cast<unsigned char>(byte)));
    out += escaped;
}

}  // namespace

bool ppsNeedsEscapes(std::string_view value) {
    for (const char byte : value) {
        if (isControl(byte) || byte == '\\') {
            return true;
        }
    }
    return false;
}

std::string ppsEscapeC(std::string_view value) {
    std::string out;
    out.reserve(value.size() + 8);
    for (const char byte : value) {
        if (byte == '\n') {
            out += "\\n";
        } else if (byte == '\r') {
            out += "\\r";
        } else if (byte == '\t') {
            out += "\\t";
        } else if (byte == '\\') {
            out += "\\\\";
        } else if (isControl(byte)) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\%03o",
                          static_cast<unsigned>(static_cast<unsigned char>(byte)));
            out += escaped;
        } else {
            out += byte;
        }
    }
    return out;
}

std::string ppsUnescapeC(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t at = 0;
    while (at < text.size()) {
        if (text[at] != '\\' || at + 1 == text.size()) {
            out += text[at++];
            continue;
        }
        ++at;
        const bool isHex = text[at] == 'x' && at + 1 < text.size() && hexDigit(text[at + 1]) >= 0;
        if (isHex || isOctal(text[at])) {
            out += readNumericEscape(text, at);
        } else {
            out += simpleEscape(text[at++]);
        }
    }
    return out;
}

void ppsAppendJsonString(std::string& out, std::string_view value) {
    out += '"';
    while (!value.empty()) {
        const std::size_t plain = countPlain(value);
        out += value.substr(0, plain);
        value.remove_prefix(plain);
        if (value.empty()) {
            break;
        }
        if (isAscii(value.front())) {
            appendJsonEscape(out, value.front());
            value.remove_prefix(1);
            continue;
        }
        const std::size_t length = ppsUtf8Length(value);
        if (length == 0) {
            out += kReplacementCharacter;
            value.remove_prefix(1);
        } else {
            out += value.substr(0, length);
            value.remove_prefix(length);
        }
    }
    out += '"';
}

std::size_t ppsUtf8Length(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (!isContinuation(text[i])) {
            return 0;
        }
    }
    const auto second = static_cast<unsigned char>(text[1]);
    const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool surrogate = lead == 0xED && second >= 0xA0;
    const bool tooLarge = lead == 0xF4 && second >= 0x90;
    return overlong || surrogate || tooLarge ? 0 : length;
}
