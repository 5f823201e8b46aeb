// quilctl rules as people run it: what is wrong with a file, and who may act for what.

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/integration/tool_process.hpp"
#include "tests/support/agent/in_child.hpp"
#include "tests/support/scratch_root.hpp"

namespace {

using Words = std::vector<std::string>;

class QuilctlRules : public ::testing::Test {
  protected:
    QuilctlRules() { std::filesystem::create_directories(m_root.path("/etc")); }

    std::string write(const std::string& text) const {
        const std::string path = m_root.path("/etc/quilagent.rules");
        std::ofstream(path) << text;
        return path;
    }
    // The agent's configuration names the file.
    void configure(const std::string& line = "rules /etc/quilagent.rules\n") const {
        std::ofstream(m_root.path("/etc/quilagent.conf")) << line;
    }
    ToolRun run(Words arguments) const {
        arguments.insert(arguments.begin(), "rules");
        return runTool(m_root.path(), "quilctl", arguments);
    }
    // The exit status of "explain" with the file of the configuration.
    int explain(const std::string& user, const std::string& appId) const {
        return run({"explain", user, appId}).status;
    }

    ScratchRoot m_root;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST_F(QuilctlRules, CheckOfAGoodFileIsStatus0) {
    const std::string path = write("# all\nallow user 1000 com.*\nallow group 27 *\n");
    EXPECT_EQ(run({"check", path}).status, 0);
    configure();
    EXPECT_EQ(run({"check"}).output, "/etc/quilagent.rules: 2 rules, no bad line\n");
}

TEST_F(QuilctlRules, CheckNamesEachBadLineAndIsStatus1) {
    write("allow user 1000 com.*\nallow\n\nallow user 5 a b\n");
    configure();
    const ToolRun result = run({"check"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "problem: /etc/quilagent.rules line 2 has nothing behind 'allow' instead of\n"
              "         'user' or 'group'\n"
              "problem: /etc/quilagent.rules line 4 has 'b' behind its pattern; in a pattern\n"
              "         '?' stands for a blank too\n");
    const auto first = nlohmann::json::parse(
        run({"check", "--json"}).output.substr(0, run({"check", "--json"}).output.find('\n')));
    EXPECT_EQ(first["line"], 2);
    EXPECT_EQ(first["severity"], "problem");
}

TEST_F(QuilctlRules, CheckWarnsOfNamesThatNobodyHas) {
    const std::string path =
        write("allow user no-such-user *\nallow group no-such-group *\nallow user root *\n");
    const ToolRun result = run({"check", path});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(contains(result.output, "warning: ")) << result.output;
    EXPECT_TRUE(contains(result.output, "'no-such-user'"));
    EXPECT_TRUE(contains(result.output, "'no-such-group'"));
    EXPECT_FALSE(contains(result.output, "'root'"));
}

TEST_F(QuilctlRules, CheckWarnsOfAnOpenBracket) {
    const std::string path = write("allow user 1 com.[a-c]\nallow user 2 com.[ab\n");
    const ToolRun result = run({"check", path, "--json"});
    EXPECT_EQ(result.status, 0);
    const auto warning = nlohmann::json::parse(result.output);
    EXPECT_EQ(warning["line"], 2);
    EXPECT_EQ(warning["severity"], "warning");
    EXPECT_EQ(
        warning["words"],
        "has a pattern with a '[' that no ']' ends: it stands for itself; write '\\[' where that "
        "is meant");
}

TEST_F(QuilctlRules, CheckWarnsOfAFileWithoutARule) {
    write("# allow user * *\n");
    configure();
    const ToolRun result = run({"check"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output,
              "warning: /etc/quilagent.rules has no rule: root alone may act for applications\n"
              "/etc/quilagent.rules: 0 rules, no bad line\n");
    const auto warning = nlohmann::json::parse(run({"check", "--json"}).output);
    EXPECT_EQ(warning["severity"], "warning");
    EXPECT_FALSE(warning.contains("line"));
    configure("http-timeout 60\n");
    EXPECT_FALSE(contains(run({"check"}).output, "warning"));
}

TEST_F(QuilctlRules, CheckOfAFileThatIsTooLargeIsStatus3) {
    const ToolRun result = run({"check", write(std::string(65537, '\n'))});
    EXPECT_EQ(result.status, 3);
    EXPECT_TRUE(contains(result.error, "more than 65536 bytes")) << result.error;
}

TEST_F(QuilctlRules, FileThatCannotBeReadIsStatus3) {
    for (const Words& arguments : {Words{"check", m_root.path("/none")},
                                   Words{"explain", "1000", "x", "--file", m_root.path("/none")}}) {
        const ToolRun result = run(arguments);
        EXPECT_EQ(result.status, 3);
        EXPECT_TRUE(contains(result.error, "cannot read")) << result.error;
    }
    configure("rules relative\n");
    EXPECT_EQ(run({"check"}).status, 3);
}

TEST_F(QuilctlRules, BadArgumentsAreStatus2) {
    EXPECT_EQ(run({}).status, 2);
    EXPECT_EQ(run({"explain", "1000"}).status, 2);
    EXPECT_EQ(run({"check", "a", "b"}).status, 2);
    const ToolRun result = run({"explain", "no-such-user", "x"});
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(contains(result.error, "there is no user no-such-user")) << result.error;
    EXPECT_EQ(run({"explain", "4294967295", "x"}).status, 2);
}

TEST_F(QuilctlRules, WithoutRulesEverybodyMay) {
    EXPECT_EQ(explain("54321", "com.x"), 0);
    configure("http-timeout 60\n");
    const ToolRun result = run({"explain", "54321", "com.x"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(contains(result.output, "everybody may act for every application"));
    EXPECT_EQ(run({"check"}).status, 0);
}

TEST_F(QuilctlRules, ExplainNamesTheLineThatDecides) {
    write("# comment\nallow user 54321 com.a.*\nallow user * %u.*\n");
    configure();
    const ToolRun result = run({"explain", "54321", "com.a.b"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output,
              "user 54321 may act for com.a.b: /etc/quilagent.rules line 2, allow user 54321\n"
              "com.a.*\n");
    EXPECT_EQ(explain("54321", "54321.x"), 0);
    EXPECT_EQ(explain("54321", "com.b"), 1);
    const auto object =
        nlohmann::json::parse(run({"explain", "54321", "54321.x", "--json"}).output);
    EXPECT_EQ(object["allowed"], true);
    EXPECT_EQ(object["line"], 3);
    EXPECT_EQ(object["rule"], "allow user * %u.*");
}

TEST_F(QuilctlRules, ExplainKnowsUsersByNameWithTheirGroups) {
    const passwd* daemon = getpwnam("daemon");
    if (daemon == nullptr) {
        GTEST_SKIP() << "NOT TESTED: there is no user daemon here";
    }
    write("allow group " + std::to_string(daemon->pw_gid) + " by.group\nallow user daemon x\n");
    configure();
    EXPECT_EQ(explain("daemon", "x"), 0);
    EXPECT_EQ(explain(std::to_string(daemon->pw_uid), "x"), 0);
    EXPECT_EQ(explain("daemon", "by.group"), 0);
    EXPECT_EQ(explain("daemon", "y"), 1);
    EXPECT_EQ(explain("54321", "by.group"), 1);
}

TEST_F(QuilctlRules, BadLineLeavesRootAlone) {
    write("allow user * *\nallow\n");
    configure();
    const ToolRun result = run({"explain", "54321", "x"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.output, "line 2 has nothing behind 'allow'")) << result.output;
    EXPECT_EQ(explain("root", "x"), 0);
    EXPECT_EQ(explain("0", "x"), 0);
}

TEST_F(QuilctlRules, ConfigurationThatIsClosedIsNoAbsenceOfRules) {
    write("");
    configure();
    ASSERT_EQ(chmod(m_root.path("/etc/quilagent.conf").c_str(), 0), 0);
    EXPECT_EQ(asOrdinaryUser([this] { return std::to_string(explain("54321", "x")); }), "3");
}
