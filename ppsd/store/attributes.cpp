// Whoever may write to one object must not be able to keep the whole service busy, so a large
// object costs one look at each of its lines, and what is sought in it is sorted, not hashed: names
// that were chosen to collide gain nothing. Merging takes the lines as they stand but for those
// that it changes. Comparing goes along both texts at once, since lines keep their order until they
// are removed; only what is found out of order is sorted.

#include "ppsd/store/attributes.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "platform/pps/ppsparse.hpp"

namespace {

// Cuts the next line of an object, which is known to be well-formed, off `text`: with its line
// feed.
std::string_view takeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n') + 1);
    text.remove_prefix(line.size());
    return line;
}

std::string_view nameOf(std::string_view line) {
    return line.substr(0, line.find(':'));
}

void appendLine(std::string& text, const AttributeChange& line) {
    text.append(line.name).append(1, ':').append(line.encoding).append(1, ':');
    text.append(line.value).append(1, '\n');
}

// What becomes of one attribute that a write names.
struct Outcome {
    std::string_view name;
    std::string_view line;                      // of the object, empty when it has none
    const AttributeChange* inPlace = nullptr;   // what stands there then
    bool isRemoved = false;                     // that line
    const AttributeChange* appended = nullptr;  // a line behind all others
    std::size_t order = 0;                      // among those
};

using Outcomes = std::vector<Outcome>;  // by name

Outcome* find(Outcomes& outcomes, std::string_view name) {
    const auto found = std::lower_bound(
        outcomes.begin(), outcomes.end(), name,
        [](const Outcome& outcome, std::string_view sought) { return outcome.name < sought; });
    return found == outcomes.end() || found->name != name ? nullptr : &*found;
}

Outcomes outcomesOf(const std::vector<AttributeChange>& changes) {
    Outcomes outcomes(changes.size());
    for (std::size_t i = 0; i < changes.size(); ++i) {
        outcomes[i].name = changes[i].name;
    }
    std::sort(outcomes.begin(), outcomes.end(),
              [](const Outcome& one, const Outcome& other) { return one.name < other.name; });
    outcomes.erase(std::unique(outcomes.begin(), outcomes.end(),
                               [](const Outcome& one, const Outcome& other) {
                                   return one.name == other.name;
                               }),
                   outcomes.end());
    return outcomes;
}

void apply(const AttributeChange& change, std::size_t order, Outcome& outcome) {
    if (change.removes) {
        outcome.isRemoved = true;
        outcome.inPlace = outcome.appended = nullptr;
    } else if (!outcome.line.empty() && !outcome.isRemoved) {
        outcome.inPlace = &change;
    } else {
        outcome.order = outcome.appended == nullptr ? order : outcome.order;
        outcome.appended = &change;
    }
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

std::string mergeChanges(std::string_view text, const std::vector<AttributeChange>& changes) {
    Outcomes outcomes = outcomesOf(changes);
    std::vector<const Outcome*> present;  // in the order of the lines
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = takeLine(rest);
        if (Outcome* const outcome = find(outcomes, nameOf(line))) {
            outcome->line = line;
            present.push_back(outcome);
        }
    }
    std::size_t most = text.size();
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const AttributeChange& change = changes[i];
        most += change.name.size() + change.encoding.size() + change.value.size() + 3;
        apply(change, i, *find(outcomes, change.name));
    }
    std::string merged;
    merged.reserve(most);
    const char* kept = text.data();
    for (const Outcome* outcome : present) {
        merged.append(kept, outcome->line.data());
        kept = outcome->line.data() + outcome->line.size();
        if (outcome->inPlace != nullptr) {
            appendLine(merged, *outcome->inPlace);
        } else if (!outcome->isRemoved) {
            merged.append(outcome->line);
        }
    }
    merged.append(kept, text.data() + text.size());
    std::erase_if(outcomes, [](const Outcome& outcome) { return outcome.appended == nullptr; });
    std::sort(outcomes.begin(), outcomes.end(),
              [](const Outcome& one, const Outcome& other) { return one.order < other.order; });
    for (const Outcome& outcome : outcomes) {
        appendLine(merged, *outcome.appended);
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
    std::string lines;
    // Lines of before that are not at their place any more: where they begin, by name, once sorted.
    std::vector<std::string_view> displaced;
    while (!before.empty()) {
        const std::string_view old = takeLine(before);
        std::string_view rest = after;
        const std::string_view line = takeLine(rest);
        if (line.empty() || nameOf(line) != nameOf(old)) {
            displaced.push_back(old);
            continue;
        }
        after = rest;
        if (line != old) {
            lines.append(line);
        }
    }
    // What is left of after was appended: new, or come back.
    std::vector<std::pair<std::string_view, std::size_t>> sorted;
    for (std::size_t i = 0; i < displaced.size(); ++i) {
        sorted.emplace_back(nameOf(displaced[i]), i);
    }
    std::sort(sorted.begin(), sorted.end());
    std::vector<bool> isBack(displaced.size());
    while (!after.empty()) {
        const std::string_view line = takeLine(after);
        const auto found =
            std::lower_bound(sorted.begin(), sorted.end(), std::pair(nameOf(line), std::size_t{0}));
        const bool wasThere = found != sorted.end() && found->first == nameOf(line);
        if (wasThere) {
            isBack[found->second] = true;
        }
        if (!wasThere || displaced[found->second] != line) {
            lines.append(line);
        }
    }
    for (std::size_t i = 0; i < displaced.size(); ++i) {
        if (!isBack[i]) {
            lines.append(1, '-').append(nameOf(displaced[i])).append(1, '\n');
        }
    }
    return lines.empty() ? lines : objectLine(name) + lines;
}
