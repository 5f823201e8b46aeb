// Escaping of object text: the "c" encoding (C escapes) and JSON strings. Pure functions.

#pragma once

#include <string>
#include <string_view>

// True when `value` cannot stand as a plain string on one line: it holds a control byte or a
// backslash.
bool ppsNeedsEscapes(std::string_view value);

// `value` with C escapes: \n \r \t \\ and three octal digits for every other control byte.
std::string ppsEscapeC(std::string_view value);

// The bytes that `text` stands for. Understands \a \b \f \n \r \t \v, one to three octal digits, \x
// with one or two hexadecimal digits; any other escaped character stands for itself, as does a
// backslash at the very end. ppsUnescapeC(ppsEscapeC(x)) == x for all x.
std::string ppsUnescapeC(std::string_view text);

// Appends `value` to `out` as a JSON string with its quotes. Quotes, backslashes and control bytes
// are escaped, valid UTF-8 stays as it is, and each byte that is not valid UTF-8 becomes U+FFFD.
void ppsAppendJsonString(std::string& out, std::string_view value);

// Length of the valid UTF-8 sequence that `text`, which must not be empty, begins with; 0 when
// there is none. Overlong forms, surrogates and code points beyond U+10FFFF are not valid.
std::size_t ppsUtf8Length(std::string_view text);
