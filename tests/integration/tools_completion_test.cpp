// The completion files: what they offer is what the programs know.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "tests/integration/tool_process.hpp"
#include "tests/support/ppsd_mount.hpp"

namespace {

using Names = std::set<std::string>;

std::string completionFile(const std::string& name) {
    return std::string(std::getenv("QUIL_SOURCE")) + "/packaging/completion/" + name;
}

// What bash offers for these words, the last one being typed.
Names offered(const std::string& program, const std::vector<std::string>& words) {
    std::string script =
        "source '" + completionFile(program + ".bash") + "'; COMP_WORDS=(" + program;
    for (const std::string& word : words) {
        script += " '" + word + "'";
    }
    script += "); COMP_CWORD=" + std::to_string(words.size()) + "; _" + program +
              "; printf '%s\\n' \"${COMPREPLY[@]}\"";
    std::FILE* shell = popen(("bash -c \"$(cat <<'END'\n" + script + "\nEND\n)\"").c_str(), "r");
    Names names;
    char line[512];
    while (std::fgets(line, sizeof line, shell) != nullptr) {
        std::string name = line;
        name.pop_back();
        if (!name.empty()) {
            names.insert(name);
        }
    }
    pclose(shell);
    return names;
}

std::string helpOf(const std::string& program, const std::vector<std::string>& words) {
    const ScratchRoot root;
    return runTool(root.path(), program, words).output;
}

// All that stands at the start of an indented line of the help, under `heading`.
Names listed(const std::string& help, const std::string& heading, const std::regex& pattern) {
    std::istringstream lines(help);
    bool isInside = false;
    Names names;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] != ' ') {
            isInside = line == heading;
        }
        std::smatch match;
        if (isInside && std::regex_search(line, match, pattern)) {
            names.insert(match[1]);
        }
    }
    return names;
}

Names verbsOf(const std::string& program) {
    return listed(helpOf(program, {"--help"}), "Subcommands:", std::regex("^  ([a-z-]+) "));
}

Names optionsOf(const std::string& program, const std::string& verb) {
    return listed(helpOf(program, {verb, "--help"}),
                  "Options:", std::regex("^  (?:-h,)?(--[a-z]+)"));
}

class Completion : public ::testing::TestWithParam<const char*> {};

}  // namespace

TEST_P(Completion, OfBashOffersEveryVerb) {
    Names verbs = verbsOf(GetParam());
    EXPECT_GE(verbs.size(), 5U);
    verbs.insert("--help");
    EXPECT_EQ(offered(GetParam(), {""}), verbs);
}

TEST_P(Completion, OfBashOffersEveryOption) {
    for (const std::string& verb : verbsOf(GetParam())) {
        EXPECT_EQ(offered(GetParam(), {verb, "x", "--"}), optionsOf(GetParam(), verb)) << verb;
    }
}

TEST_P(Completion, OfZshNamesEveryVerbAndOption) {
    std::ostringstream text;
    text << std::ifstream(completionFile("_" + std::string(GetParam()))).rdbuf();
    const std::string file = text.str();
    ASSERT_FALSE(file.empty());
    for (const std::string& verb : verbsOf(GetParam())) {
        EXPECT_TRUE(std::regex_search(file, std::regex("['\"]" + verb + ":"))) << verb;
        for (const std::string& option : optionsOf(GetParam(), verb)) {
            EXPECT_NE(file.find(option + "["), std::string::npos) << verb << " " << option;
        }
    }
}

// Verbs within a verb, and their options.
TEST(QuilctlCompletion, OffersThePartsOfRulesAndTheirOptions) {
    const std::regex part("^  ([a-z-]+) ");
    Names parts = listed(helpOf("quilctl", {"rules", "--help"}), "Subcommands:", part);
    EXPECT_EQ(parts.size(), 2U);
    std::ostringstream zsh;
    zsh << std::ifstream(completionFile("_quilctl")).rdbuf();
    for (const std::string& name : parts) {
        const Names options = listed(helpOf("quilctl", {"rules", name, "--help"}),
                                     "Options:", std::regex("^  (?:-h,)?(--[a-z]+)"));
        EXPECT_EQ(offered("quilctl", {"rules", name, "--"}), options) << name;
        EXPECT_NE(zsh.str().find("'" + name + ":"), std::string::npos) << name;
    }
    parts.insert("--help");
    EXPECT_EQ(offered("quilctl", {"rules", ""}), parts);
}

INSTANTIATE_TEST_SUITE_P(OfPrograms, Completion, ::testing::Values("quilctl", "ppsctl"),
                         [](const auto& program) { return std::string(program.param); });

TEST(PpsctlCompletion, OffersTheObjectsThatThereAre) {
    const ScratchRoot root;
    std::filesystem::create_directories(root.path("/pps/services/push"));
    setenv("QUIL_ROOT", root.path().c_str(), 1);
    EXPECT_EQ(offered("ppsctl", {"cat", "serv"}), (Names{"services/"}));
    EXPECT_EQ(offered("ppsctl", {"cat", "/pps/services/"}), (Names{"/pps/services/push/"}));
}
