// Bytes of a peer in a form that a terminal can show and a person can read.

#pragma once

#include <string>
#include <string_view>

// CR, LF, tab and backslash as \r \n \t \\, every other byte outside printable ASCII as \xNN.
std::string readable(std::string_view bytes);

// The same, with `prefix` in front of every line and a line end behind every LF byte (which is
// still shown as \n) and behind the last line. Empty for no bytes.
std::string readableLines(std::string_view bytes, std::string_view prefix);

// At most `limit` bytes in readable form; what is cut is said: "abc... (9000 bytes)".
std::string readableStart(std::string_view bytes, std::size_t limit);
