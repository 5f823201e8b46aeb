// Text for people: colours where they are wanted, lines that fit, and nothing that a sender of
// pushes could use to write to somebody's terminal.

#pragma once

#include <cstdio>
#include <string>
#include <string_view>

// Colours, or none: only on a terminal that is not "dumb", and never when NO_COLOR is set and not
// empty.
class Style {
  public:
    explicit Style(std::FILE* stream);

    std::string good(std::string_view text) const { return paint("32", text); }
    std::string bad(std::string_view text) const { return paint("31", text); }
    std::string warning(std::string_view text) const { return paint("33", text); }
    std::string strong(std::string_view text) const { return paint("1", text); }
    std::string faint(std::string_view text) const { return paint("2", text); }

  private:
    std::string paint(std::string_view code, std::string_view text) const;

    bool m_isColoured;
};

// `text` on one line: control bytes, backslashes and bytes that are not UTF-8 as escapes.
std::string visible(std::string_view text);

// True for text that can be shown as lines: UTF-8, and of the control bytes only tab, line feed and
// carriage return.
bool isReadable(std::string_view text);

// `text` broken at blanks so that no line is longer than `width` columns, where that can be had.
// The first line is taken to begin at column `first`, all others are indented by `indent` blanks.
std::string wrapped(std::string_view text, std::size_t first, std::size_t indent,
                    std::size_t width = 79);

// Standard base64 with padding.
std::string encodeBase64(std::string_view bytes);
