// Any rules file, and behind zero bytes the name of who asks and an application id. Each line is a
// rule, a bad line or nothing; what a rule shows of itself is the same rule again; whoever is known
// better may never do less; and a name never stands for more than itself.

#include <algorithm>
#include <string>
#include <vector>

#include "platform/rules/rules.hpp"
#include "tests/fuzz/bytes.hpp"

namespace {

constexpr std::uint32_t kUser = 1000;
constexpr std::uint32_t kGroup = 27;

bool mayAct(const Rules& rules, const Person& person, const std::string& appId) {
    const Rule* rule = rules.find(rules.grantsOf(person), appId);
    require(rule == nullptr ||
            (rule >= rules.rules().data() && rule < rules.rules().data() + rules.rules().size()));
    return rule != nullptr;
}

// Lines are counted from 1, each is met once at the most.
void checkLines(const Rules& rules, const std::string& text) {
    const auto lines = 1 + std::count(text.begin(), text.end(), '\n');
    std::vector<int> seen;
    for (const Rule& rule : rules.rules()) {
        seen.push_back(rule.line);
    }
    for (const RuleError& error : rules.errors()) {
        require(!error.reason.empty());
        seen.push_back(error.line);
    }
    std::sort(seen.begin(), seen.end());
    require(std::adjacent_find(seen.begin(), seen.end()) == seen.end());
    require(seen.empty() || (seen.front() >= 1 && seen.back() <= lines));
}

void checkShownAgain(const Rule& rule) {
    const Rules again(rule.text());
    require(again.errors().empty() && again.rules().size() == 1);
    const Rule& same = again.rules().front();
    require(same.text() == rule.text() && same.number == rule.number &&
            same.subject == rule.subject && same.isForAnybody == rule.isForAnybody);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> parts = splitAtZeros(data, size);
    parts.resize(3);
    const std::string& text = parts[0];
    const std::string& name = parts[1];
    const std::string& appId = parts[2];

    const Rules rules(text);
    checkLines(rules, text);
    std::for_each(rules.rules().begin(), rules.rules().end(), checkShownAgain);

    const Person stranger{kUser, "", {}, {}};
    const Person named{kUser, name, {kGroup}, {}};
    const Person member{kUser, name, {kGroup, 0}, rules.namedGroups()};
    require(!mayAct(rules, stranger, appId) || mayAct(rules, named, appId));
    require(!mayAct(rules, named, appId) || mayAct(rules, member, appId));
    require(!rules.rules().empty() || !mayAct(rules, member, appId));

    // What stands behind a zero byte is of another application.
    require(!mayAct(rules, member, appId + std::string("\0x", 2)));

    if (!name.empty()) {
        const Rules own("allow user * %u\n");
        require(mayAct(own, named, name));
        require(mayAct(own, named, appId) == (appId == name));
        const Rules below("allow user * %u.*\n");
        require(mayAct(below, named, appId) == appId.starts_with(name + "."));
    }
    return 0;
}
