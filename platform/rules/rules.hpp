// Who may act for which application: the lines of a rules file, and whom they fit.
//
//     # a comment
//     allow user NAME PATTERN
//     allow group NAME PATTERN
//
// One line that fits is enough; who is fitted by none may act for no application, root aside. NAME
// is a name, a number, or "*" for anybody. PATTERN is a shell pattern of application ids in which
// "%u" stands for the name of the user who asks, whose own letters are never taken for a pattern.
// '#' begins a comment at the start of a line or behind a blank. A file with a bad line is not to
// be used at all: whoever wrote it meant something else than what would be left of it.
//
// It lies with the platform because that is whose word it would be: a handset's operating system
// says which program may use what, and the daemon and the tools have to read its answer alike.
//
// Pure text: no files, no name service, no logging.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Somebody who asks, as far as known (name_service.hpp finds the rest out).
struct Person {
    std::uint32_t user = 0;
    // What "%u" stands for; "" as long as it is not known, and then no line with "%u" fits.
    std::string name;
    std::vector<std::uint32_t> groups;
    // Those of Rules::namedGroups that the person is in.
    std::vector<std::string> groupNames;
};

struct Rule {
    enum class Subject { User, Group };

    int line = 0;  // from 1
    Subject subject = Subject::User;
    bool isForAnybody = false;            // NAME is "*"
    std::optional<std::uint32_t> number;  // NAME is a number
    std::string name;                     // as written
    std::string pattern;

    // Whether the pattern has a '[' without its ']', which stands for itself then: good, but seldom
    // meant.
    bool hasOpenBracket() const;
    // The line again, without comment and further blanks.
    std::string text() const;
};

// A line that is none of a rules file's.
struct RuleError {
    int line = 0;
    std::string reason;  // "names no pattern", for behind "line 3 "
};

// What the rules grant to one person: little to keep, as there may be many.
struct Grants {
    std::string name;        // of the person
    std::vector<bool> fits;  // for each rule whether its NAME does
};

class Rules {
  public:
    // Grants nothing.
    Rules() = default;
    // Takes every line; those that are good stand in rules(), the others in errors().
    explicit Rules(std::string_view text);

    const std::vector<Rule>& rules() const { return m_rules; }
    const std::vector<RuleError>& errors() const { return m_errors; }

    // The groups that lines name by a name, each once.
    std::vector<std::string> namedGroups() const;

    Grants grantsOf(const Person& person) const;
    // The first line by which somebody with these grants (of this very object) may act for the
    // application; null for none. An id with a zero byte in it fits no pattern.
    const Rule* find(const Grants& grants, const std::string& appId) const;

  private:
    void take(std::string_view line, int number);

    std::vector<Rule> m_rules;
    std::vector<RuleError> m_errors;
};

// Longest line that is taken.
constexpr std::size_t kLongestRuleBytes = 1024;

// The decimal number of a user or group; nothing for what is no such number. The highest number of
// all is none: systems say "nobody" with it.
std::optional<std::uint32_t> accountNumber(std::string_view text);

// Whether the text is one of digits alone: it is a number then, also where it is too large.
bool isAllDigits(std::string_view text);
