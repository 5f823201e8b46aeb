// The attributes of an object and their text: parsing what was written, merging, rendering.
// Pure functions; no locks, no descriptors. Results of type int are 0 or an errno value.

#pragma once

#include <string>
#include <string_view>
#include <vector>

struct Attribute {
    std::string name;
    std::string encoding;
    std::string value;

    bool operator==(const Attribute&) const = default;
};

// In the order in which the attributes were first written; names are unique.
using AttributeList = std::vector<Attribute>;

// One line of a write. Views into the written text.
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

// `list` after `changes`, applied in their order.
AttributeList mergeChanges(const AttributeList& list, const std::vector<AttributeChange>& changes);

// Appends the lines of `changes`, one each, to `text`: "-name" or "name:encoding:value".
void appendLines(std::string& text, const std::vector<AttributeChange>& changes);

// The lines of `list` without an object line.
std::string renderAttributes(const AttributeList& list);

// "@name" and the lines of `list`; empty when `list` is.
std::string renderObject(std::string_view name, const AttributeList& list);

// "@name" and what leads from `before` to `after`: changed and new attributes in the order of
// `after`, then "-attribute" for each that is gone. Empty when nothing differs.
std::string renderDelta(std::string_view name, const AttributeList& before,
                        const AttributeList& after);
