// A list is a plain vector, because order is part of the contract and objects are small. Merging
// and comparing index it by name first, so that a large object costs its length and not its square:
// whoever may write to one object must not be able to keep the whole service busy.

#include "ppsd/store/attributes.hpp"

#include <cerrno>
#include <optional>
#include <unordered_map>

#include "platform/pps/ppsparse.hpp"

namespace {

using Index = std::unordered_map<std::string_view, std::size_t>;

Index indexOf(const AttributeList& list) {
    Index index;
    index.reserve(list.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        index.emplace(list[i].name, i);
    }
    return index;
}

void appendLine(std::string& text, std::string_view name, std::string_view encoding,
                std::string_view value) {
    text.append(name).append(1, ':').append(encoding).append(1, ':').append(value).append(1, '\n');
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

AttributeList mergeChanges(const AttributeList& list, const std::vector<AttributeChange>& changes) {
    std::vector<std::optional<Attribute>> slots(list.begin(), list.end());
    Index index = indexOf(list);
    for (const AttributeChange& change : changes) {
        const auto found = index.find(change.name);
        if (change.removes) {
            if (found != index.end()) {
                slots[found->second].reset();
                index.erase(found);
            }
            continue;
        }
        Attribute attribute{std::string(change.name), std::string(change.encoding),
                            std::string(change.value)};
        if (found != index.end()) {
            slots[found->second] = std::move(attribute);
        } else {
            index.emplace(change.name, slots.size());
            slots.emplace_back(std::move(attribute));
        }
    }
    AttributeList merged;
    merged.reserve(slots.size());
    for (std::optional<Attribute>& slot : slots) {
        if (slot) {
            merged.push_back(std::move(*slot));
        }
    }
    return merged;
}

void appendLines(std::string& text, const std::vector<AttributeChange>& changes) {
    for (const AttributeChange& change : changes) {
        if (change.removes) {
            text.append(1, '-').append(change.name).append(1, '\n');
        } else {
            appendLine(text, change.name, change.encoding, change.value);
        }
    }
}

std::string renderAttributes(const AttributeList& list) {
    std::string text;
    for (const Attribute& attribute : list) {
        appendLine(text, attribute.name, attribute.encoding, attribute.value);
    }
    return text;
}

std::string renderObject(std::string_view name, const AttributeList& list) {
    if (list.empty()) {
        return {};
    }
    std::string text(1, '@');
    text.append(name).append(1, '\n').append(renderAttributes(list));
    return text;
}

std::string renderDelta(std::string_view name, const AttributeList& before,
                        const AttributeList& after) {
    std::string lines;
    Index old = indexOf(before);
    for (const Attribute& attribute : after) {
        const auto found = old.find(attribute.name);
        if (found == old.end() || before[found->second] != attribute) {
            appendLine(lines, attribute.name, attribute.encoding, attribute.value);
        }
        if (found != old.end()) {
            old.erase(found);
        }
    }
    for (const Attribute& attribute : before) {
        if (old.contains(attribute.name)) {
            lines.append(1, '-').append(attribute.name).append(1, '\n');
        }
    }
    if (lines.empty()) {
        return {};
    }
    return std::string(1, '@').append(name).append(1, '\n').append(lines);
}
