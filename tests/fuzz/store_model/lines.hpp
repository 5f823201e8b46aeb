// The text of objects: attributes, and the lines of a write.

#pragma once

#include <string>
#include <vector>

namespace model {

struct Value {
    std::string name;
    std::string encoding;
    std::string value;
    bool operator==(const Value&) const = default;
};
using Values = std::vector<Value>;

inline std::string lineOf(const Value& value) {
    return value.name + ":" + value.encoding + ":" + value.value + "\n";
}

inline std::string linesOf(const Values& values) {
    std::string text;
    for (const Value& value : values) {
        text += lineOf(value);
    }
    return text;
}

inline const Value* findValue(const Values& values, const std::string& name) {
    for (const Value& value : values) {
        if (value.name == name) {
            return &value;
        }
    }
    return nullptr;
}

// A line of a write.
struct Line {
    enum Kind { kSet, kRemove, kObject, kBroken } kind;
    Value value;       // kSet; of kRemove the name
    std::string text;  // with its line feed
};

}  // namespace model
