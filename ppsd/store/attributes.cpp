// Merging and comparing index the lines by name first, so that a large object costs its length and
// not its square: whoever may write to one object must not be able to keep the whole service busy.

#include "ppsd/store/attributes.hpp"

#include <cerrno>
#include <cstddef>
#include <unordered_map>

#include "platform/pps/ppsparse.hpp"

namespace {

using Lines = std::vector<AttributeChange>;
using Index = std::unordered_map<std::string_view, std::size_t>;

// The lines of an object, which are known to be well-formed.
Lines linesOf(std::string_view text) {
    Lines lines;
    parseChanges(text, ObjectLines::kRefused, lines);
    return lines;
}

Index indexOf(const Lines& lines) {
    Index index;
    index.reserve(lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        index.emplace(lines[i].name, i);
    }
    return index;
}

void appendLine(std::string& text, const AttributeChange& line) {
    text.append(line.name).append(1, ':').append(line.encoding).append(1, ':');
    text.append(line.value).append(1, '\n');
}

bool isSame(const AttributeChange& one, const AttributeChange& other) {
    return one.encoding == other.encoding && one.value == other.value;
}

}  // namespace

int parseChanges(std::string_view text, ObjectLines objectLines,
                 std::vector<AttributeChange>& changes) {
    const char* cursor = text.data();
    const char* end = text.data() + text.size();
    pps_line_t line;
    for (bool first = true;; first = false) {
        switch (ppsparse(&cursor, end, &line)) {
            case PPS_END:
                return line.incomplete ? EINVAL : 0;
            case PPS_OBJECT:
                if (objectLines == ObjectLines::kRefused ||
                    (objectLines == ObjectLines::kLeadingIgnored && !first)) {
                    return EINVAL;
                }
                break;
            case PPS_ATTRIBUTE:
            case PPS_ATTRIBUTE_CODED:
                changes.push_back({line.name, line.encoding, line.value, false});
                break;
            case PPS_ATTRIBUTE_REMOVED:
                changes.push_back({line.name, {}, {}, true});
                break;
            case PPS_MALFORMED:
            case PPS_OBJECT_CREATED:
            case PPS_OBJECT_DELETED:
                return EINVAL;
        }
    }
}

// A removed line keeps its place, marked as such, until the end.
std::string mergeChanges(std::string_view text, const std::vector<AttributeChange>& changes) {
    Lines lines = linesOf(text);
    Index index = indexOf(lines);
    std::size_t most = text.size();
    for (const AttributeChange& change : changes) {
        const auto found = index.find(change.name);
        most += change.name.size() + change.encoding.size() + change.value.size() + 3;
        if (change.removes) {
            if (found != index.end()) {
                lines[found->second].removes = true;
                index.erase(found);
            }
        } else if (found != index.end()) {
            lines[found->second] = change;
        } else {
            index.emplace(change.name, lines.size());
            lines.push_back(change);
        }
    }
    std::string merged;
    merged.reserve(most);
    for (const AttributeChange& line : lines) {
        if (!line.removes) {
            appendLine(merged, line);
        }
    }
    merged.shrink_to_fit();
    return merged;
}

void appendLines(std::string& text, const std::vector<AttributeChange>& changes) {
    for (const AttributeChange& change : changes) {
        if (change.removes) {
            text.append(1, '-').append(change.name).append(1, '\n');
        } else {
            appendLine(text, change);
        }
    }
}

std::string objectLine(std::string_view name) {
    return std::string(1, '@').append(name).append(1, '\n');
}

std::string renderDelta(std::string_view name, std::string_view before, std::string_view after) {
    const Lines oldLines = linesOf(before);
    Index old = indexOf(oldLines);
    std::string lines;
    for (const AttributeChange& line : linesOf(after)) {
        const auto found = old.find(line.name);
        if (found == old.end() || !isSame(oldLines[found->second], line)) {
            appendLine(lines, line);
        }
        if (found != old.end()) {
            old.erase(found);
        }
    }
    for (const AttributeChange& line : oldLines) {
        if (old.contains(line.name)) {
            lines.append(1, '-').append(line.name).append(1, '\n');
        }
    }
    return lines.empty() ? lines : objectLine(name) + lines;
}
