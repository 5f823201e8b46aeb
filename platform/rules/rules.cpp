// A line is cut at blanks into at most four words, and each word is judged where it is met.

#include "platform/rules/rules.hpp"

#include <fnmatch.h>

#include <algorithm>
#include <limits>

namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kUserName = "%u";
constexpr std::size_t kShownBytes = 40;  // of a word in a reason

// Cuts the next word off the front of the line; "" at its end and where a comment begins.
std::string_view nextWord(std::string_view* line) {
    const std::size_t start = line->find_first_not_of(kBlanks);
    if (start == std::string_view::npos || (*line)[start] == '#') {
        *line = {};
        return {};
    }
    const std::size_t end = std::min(line->find_first_of(kBlanks, start), line->size());
    const std::string_view word = line->substr(start, end - start);
    line->remove_prefix(end);
    return word;
}

std::string quoted(std::string_view word) {
    const bool isCut = word.size() > kShownBytes;
    std::string text = "'";
    text += word.substr(0, kShownBytes);
    text += isCut ? "...'" : "'";
    return text;
}

bool isControl(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return (value < 0x20 && byte != '\t') || value == 0x7F;
}

// Whether the pattern's last backslash has nothing behind it to stand for.
bool endsInEscape(std::string_view pattern) {
    const std::size_t last = pattern.find_last_not_of('\\');
    const std::size_t backslashes =
        last == std::string_view::npos ? pattern.size() : pattern.size() - last - 1;
    return backslashes % 2 == 1;
}

// Why a line is bad; "" for a good one, which is then in *rule. For an empty one rule->line is 0.
std::string readLine(std::string_view line, int number, Rule* rule) {
    if (line.size() > kLongestRuleBytes) {
        return "is longer than " + std::to_string(kLongestRuleBytes) + " characters";
    }
    if (std::any_of(line.begin(), line.end(), isControl)) {
        return line.back() == '\r' ? "ends in a carriage return" : "holds a control character";
    }
    const std::string_view verb = nextWord(&line);
    if (verb.empty()) {
        return "";
    }
    if (verb != "allow") {
        return "begins with " + quoted(verb) + " instead of 'allow'";
    }
    const std::string_view subject = nextWord(&line);
    if (subject != "user" && subject != "group") {
        return "has " + (subject.empty() ? "nothing" : quoted(subject)) +
               " behind 'allow' instead of 'user' or 'group'";
    }
    const std::string_view name = nextWord(&line);
    if (name.empty()) {
        return "names no " + std::string(subject);
    }
    rule->subject = subject == "user" ? Rule::Subject::User : Rule::Subject::Group;
    rule->isForAnybody = name == "*";
    rule->name = name;
    rule->number = accountNumber(name);
    if (isAllDigits(name) && !rule->number) {
        return "names a " + std::string(subject) + " " + quoted(name) +
               ", which is too large a number";
    }
    if (!rule->isForAnybody && name.find('*') != std::string_view::npos) {
        return "names a " + std::string(subject) + " " + quoted(name) +
               ": a name is no pattern, only '*' alone stands for anybody";
    }
    rule->pattern = nextWord(&line);
    if (rule->pattern.empty()) {
        return "names no pattern of application ids";
    }
    if (endsInEscape(rule->pattern)) {
        return "has a pattern that ends in a backslash, with nothing behind it";
    }
    const std::string_view more = nextWord(&line);
    if (!more.empty()) {
        return "has " + quoted(more) +
               " behind its pattern; in a pattern '?' stands for a blank too";
    }
    rule->line = number;
    return "";
}

bool isPlain(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= '0' && byte <= '9');
}

// The pattern with the name in the place of each "%u", every letter of the name standing for
// itself alone. "\%u" stays what it is, the text "%u". Nothing when the name is not known.
std::optional<std::string> withName(const std::string& pattern, const std::string& name) {
    std::string result;
    for (std::size_t at = 0; at < pattern.size();) {
        if (pattern[at] == '\\') {
            result.append(pattern, at, 2);
            at += 2;
        } else if (pattern.compare(at, kUserName.size(), kUserName) == 0) {
            if (name.empty()) {
                return std::nullopt;
            }
            for (const char byte : name) {
                result.append(isPlain(byte) ? "" : "\\").push_back(byte);
            }
            at += kUserName.size();
        } else {
            result.push_back(pattern[at++]);
        }
    }
    return result;
}

bool fits(const Rule& rule, const Person& person) {
    if (rule.isForAnybody) {
        return true;
    }
    if (rule.subject == Rule::Subject::User) {
        return rule.number ? *rule.number == person.user : rule.name == person.name;
    }
    if (rule.number) {
        return std::find(person.groups.begin(), person.groups.end(), *rule.number) !=
               person.groups.end();
    }
    return std::find(person.groupNames.begin(), person.groupNames.end(), rule.name) !=
           person.groupNames.end();
}

// Behind the ']' of the '[' at `start`; npos when there is none. A ']' is a letter like any other
// in front, behind a backslash, and within "[:", "[=" and "[.", which end with ":]" and its kin.
std::size_t endOfBrackets(const std::string& pattern, std::size_t start) {
    std::size_t at = start + 1;
    if (at < pattern.size() && (pattern[at] == '!' || pattern[at] == '^')) {
        ++at;
    }
    for (const std::size_t front = at; at < pattern.size();) {
        if (pattern[at] == ']' && at != front) {
            return at + 1;
        }
        const char kind = pattern[at] == '[' && at + 1 < pattern.size() ? pattern[at + 1] : '\0';
        const std::size_t close = kind == ':' || kind == '=' || kind == '.'
                                      ? pattern.find(']', at + 2)
                                      : std::string::npos;
        if (close != std::string::npos && close > at + 3 && pattern[close - 1] == kind) {
            at = close + 1;
        } else {
            at += pattern[at] == '\\' ? 2 : 1;
        }
    }
    return std::string::npos;
}

}  // namespace

bool Rule::hasOpenBracket() const {
    for (std::size_t at = 0; at < pattern.size();) {
        if (pattern[at] != '[') {
            at += pattern[at] == '\\' ? 2 : 1;
            continue;
        }
        at = endOfBrackets(pattern, at);
        if (at == std::string::npos) {
            return true;
        }
    }
    return false;
}

std::string Rule::text() const {
    return std::string("allow ") + (subject == Subject::User ? "user " : "group ") + name + " " +
           pattern;
}

Rules::Rules(std::string_view text) {
    for (int number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        take(text.substr(0, end), number);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

void Rules::take(std::string_view line, int number) {
    Rule rule;
    std::string reason = readLine(line, number, &rule);
    if (!reason.empty()) {
        m_errors.push_back({number, std::move(reason)});
    } else if (rule.line != 0) {
        m_rules.push_back(std::move(rule));
    }
}

std::vector<std::string> Rules::namedGroups() const {
    std::vector<std::string> names;
    for (const Rule& rule : m_rules) {
        if (rule.subject == Rule::Subject::Group && !rule.isForAnybody && !rule.number) {
            names.push_back(rule.name);
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

Grants Rules::grantsOf(const Person& person) const {
    Grants grants{person.name, std::vector<bool>(m_rules.size())};
    for (std::size_t i = 0; i < m_rules.size(); ++i) {
        grants.fits[i] = fits(m_rules[i], person);
    }
    return grants;
}

const Rule* Rules::find(const Grants& grants, const std::string& appId) const {
    // fnmatch would see such an id as a shorter one, and the rest of the system as another.
    if (appId.find('\0') != std::string::npos) {
        return nullptr;
    }
    for (std::size_t i = 0; i < m_rules.size(); ++i) {
        if (!grants.fits[i]) {
            continue;
        }
        const std::optional<std::string> pattern = withName(m_rules[i].pattern, grants.name);
        if (pattern && fnmatch(pattern->c_str(), appId.c_str(), 0) == 0) {
            return &m_rules[i];
        }
    }
    return nullptr;
}

bool isAllDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::optional<std::uint32_t> accountNumber(std::string_view text) {
    if (!isAllDigits(text)) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (const char digit : text) {
        value = value * 10 + static_cast<std::uint64_t>(digit - '0');
        if (value >= std::numeric_limits<std::uint32_t>::max()) {
            return std::nullopt;
        }
    }
    return static_cast<std::uint32_t>(value);
}
