// The attributes of an object as text: parsing what was written, merging, differences. An object is
// kept as its lines "name:encoding:value", one for each attribute in the order in which they were
// first written, no name twice. Pure functions; no locks, no descriptors. Results of type int are 0
// or an errno value.

#pragma once

#include <string>
#include <string_view>
#include <vector>

// One line of a write, or of an object. Views into its text.
struct AttributeChange {
    std::string_view name;
    std::string_view encoding;
    std::string_view value;
    bool removes = false;
};

// What becomes of lines that name an object ("@...").
enum class ObjectLines {
    kLeadingIgnored,  // the first line may be one and is ignored; anywhere else it is an error
    kRefused,         // an error wherever it stands
    kDropped          // ignored wherever it stands
};

// Takes `text` apart into `changes`. EINVAL when any line is malformed or the last one lacks its
// line feed (a torn write must never pass for a complete value); `changes` is then of no use.
int parseChanges(std::string_view text, ObjectLines objectLines,
                 std::vector<AttributeChange>& changes);

// The lines of an object after `changes`, applied in their order.
std::string mergeChanges(std::string_view lines, const std::vector<AttributeChange>& changes);

// Appends the lines of `changes`, one each, to `text`: "-name" or "name:encoding:value".
void appendLines(std::string& text, const std::vector<AttributeChange>& changes);

// The line "@name" that stands before an object's lines.
std::string objectLine(std::string_view name);

// "@name" and what leads from the lines `before` to the lines `after`: changed and new attributes
// in the order of `after`, then "-attribute" for each that is gone. Empty when nothing differs.
std::string renderDelta(std::string_view name, std::string_view before, std::string_view after);
