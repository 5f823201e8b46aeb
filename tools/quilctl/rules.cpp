// The file is read and matched by what the agent itself uses. What the agent knows beyond it, the
// group with which a program has connected, nobody can say beforehand.

#include "tools/quilctl/rules.hpp"

#include <unistd.h>

#include <cstdio>
#include <optional>

#include "platform/root/root.hpp"
#include "platform/rules/name_service.hpp"
#include "platform/rules/rules_file.hpp"
#include "tools/common/terminal.hpp"
#include "tools/quilctl/configuration.hpp"
#include "tools/quilctl/output.hpp"

namespace {

constexpr const char* kConfiguration = "/etc/quilagent.conf";
constexpr std::uint32_t kRoot = 0;

struct NamedRules {
    std::string path;  // as people know it; "" when no rules are set
    RulesFile file;
};

ExitStatus fail(const std::string& words, const std::string& next, ExitStatus status) {
    const Style style(stderr);
    std::fprintf(stderr, "%s %s\n   next: %s\n", style.bad("quilctl:").c_str(),
                 wrapped(visible("rules: " + words), 9, 9).c_str(), wrapped(next, 9, 9).c_str());
    return status;
}

// Whether the configuration is there and only for others to read.
bool isConfigurationClosed() {
    const std::string path = platformPath(kConfiguration);
    return access(path.c_str(), F_OK) == 0 && access(path.c_str(), R_OK) != 0;
}

// Nothing when they cannot be read, which has been said then.
std::optional<NamedRules> readRules(const std::string& typed) {
    NamedRules rules;
    if (!typed.empty()) {
        rules = {typed, readRulesFile(typed)};
    } else if (isConfigurationClosed()) {
        fail(std::string("cannot read ") + kConfiguration,
             "run it as somebody who may, or name a file", kNotThere);
        return std::nullopt;
    } else {
        rules.path = settingOf(readConfiguration(), "rules");
        rules.file = rules.path.empty() ? RulesFile{} : readConfiguredRules(rules.path);
    }
    if (!rules.file.problem.empty()) {
        fail("cannot read " + rules.path + ": " + rules.file.problem,
             "name a file that you may read; an agent that cannot read its own lets root alone act "
             "for applications",
             kNotThere);
        return std::nullopt;
    }
    return rules;
}

void say(const std::string& words) {
    std::printf("%s\n", wrapped(visible(words), 0, 0).c_str());
}

std::string withoutRules() {
    return std::string("no rules are set in ") + kConfiguration +
           ": everybody may act for every application";
}

// `line` 0 stands for the whole file.
void showRemark(const NamedRules& rules, int line, const std::string& words, bool isWarning,
                bool json) {
    if (json) {
        nlohmann::ordered_json object = {{"file", rules.path}};
        if (line != 0) {
            object["line"] = line;
        }
        object["severity"] = isWarning ? "warning" : "problem";
        object["words"] = words;
        printJson(object);
        return;
    }
    const Style style(stdout);
    const std::string kind = isWarning ? "warning: " : "problem: ";
    const std::string where = line == 0 ? "" : " line " + std::to_string(line);
    const std::string text = rules.path + where + " " + words;
    std::printf("%s%s\n", (isWarning ? style.warning(kind) : style.bad(kind)).c_str(),
                wrapped(visible(text), 9, 9).c_str());
}

// A name that nobody has is no error: it may be somebody's tomorrow.
bool isKnown(const Rule& rule) {
    if (rule.isForAnybody || rule.number) {
        return true;
    }
    return rule.subject == Rule::Subject::User ? userNumber(rule.name).has_value()
                                               : isGroup(rule.name).value_or(true);
}

// What a line, or the lack of any, may be meant otherwise.
void showWarnings(const NamedRules& rules, bool json) {
    for (const Rule& rule : rules.file.rules.rules()) {
        if (!isKnown(rule)) {
            const bool isUser = rule.subject == Rule::Subject::User;
            showRemark(rules, rule.line,
                       "names a " + std::string(isUser ? "user '" : "group '") + rule.name +
                           "', which this system does not know",
                       true, json);
        }
        if (rule.hasOpenBracket()) {
            showRemark(rules, rule.line,
                       "has a pattern with a '[' that no ']' ends: it stands for itself; write "
                       "'\\[' where that is meant",
                       true, json);
        }
    }
    const bool isEmpty = rules.file.isSound() && rules.file.rules.rules().empty();
    if (!rules.path.empty() && isEmpty) {
        showRemark(rules, 0, "has no rule: root alone may act for applications", true, json);
    }
}

// The user as typed. kDone, or what has been said instead.
ExitStatus findPerson(const std::string& typed, const Rules& rules, Person* found) {
    const std::optional<std::uint32_t> number =
        isAllDigits(typed) ? accountNumber(typed) : userNumber(typed);
    if (!number) {
        return fail("there is no user " + typed, "name one, or give the number", kUsage);
    }
    const std::optional<Person> person = lookUpPerson(*number, std::nullopt, rules.namedGroups());
    if (!person) {
        return fail("the name service does not tell who user " + typed + " is", "try again",
                    kNotThere);
    }
    *found = *person;
    return kDone;
}

std::string describe(const Person& person) {
    const std::string number = std::to_string(person.user);
    return person.name == number ? "user " + number : person.name + " (" + number + ")";
}

// Whether somebody may act, and why.
struct Verdict {
    bool isAllowed = false;
    const Rule* rule = nullptr;
    std::string reason;
};

Verdict judge(const NamedRules& rules, const Person& person, const std::string& appId) {
    if (rules.path.empty()) {
        return {true, nullptr, withoutRules()};
    }
    if (person.user == kRoot) {
        return {true, nullptr, "root may, whatever the rules say"};
    }
    if (!rules.file.isSound()) {
        const RuleError& error = rules.file.rules.errors().front();
        return {false, nullptr,
                "with a bad line root alone may: " + rules.path + " line " +
                    std::to_string(error.line) + " " + error.reason};
    }
    const Rules& lines = rules.file.rules;
    const Rule* rule = lines.find(lines.grantsOf(person), appId);
    if (rule == nullptr) {
        return {false, nullptr, "no line of " + rules.path + " fits"};
    }
    return {true, rule, rules.path + " line " + std::to_string(rule->line) + ", " + rule->text()};
}

void showVerdict(const Verdict& verdict, const Person& person, const std::string& appId,
                 bool json) {
    if (!json) {
        say(describe(person) + (verdict.isAllowed ? " may act for " : " may not act for ") + appId +
            ": " + verdict.reason);
        return;
    }
    nlohmann::ordered_json object = {{"user", person.name},
                                     {"uid", person.user},
                                     {"app", appId},
                                     {"allowed", verdict.isAllowed}};
    if (verdict.rule != nullptr) {
        object["line"] = verdict.rule->line;
        object["rule"] = verdict.rule->text();
    }
    object["words"] = verdict.reason;
    printJson(object);
}

}  // namespace

ExitStatus checkRules(const std::string& file, bool json) {
    const std::optional<NamedRules> rules = readRules(file);
    if (!rules) {
        return kNotThere;
    }
    for (const RuleError& error : rules->file.rules.errors()) {
        showRemark(*rules, error.line, error.reason, false, json);
    }
    showWarnings(*rules, json);
    if (!rules->file.isSound()) {
        return kRefused;
    }
    if (!json) {
        const std::size_t count = rules->file.rules.rules().size();
        say(rules->path.empty() ? withoutRules()
                                : rules->path + ": " + std::to_string(count) +
                                      (count == 1 ? " rule, no bad line" : " rules, no bad line"));
    }
    return kDone;
}

ExitStatus explainRules(const std::string& user, const std::string& appId, const std::string& file,
                        bool json) {
    const std::optional<NamedRules> rules = readRules(file);
    if (!rules) {
        return kNotThere;
    }
    Person person;
    const ExitStatus status = findPerson(user, rules->file.rules, &person);
    if (status != kDone) {
        return status;
    }
    const Verdict verdict = judge(*rules, person, appId);
    showVerdict(verdict, person, appId, json);
    return verdict.isAllowed ? kDone : kRefused;
}
