// quilctl monitor as people run it: on a file, a pipe and the journal.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/integration/tool_process.hpp"
#include "tests/support/scratch_root.hpp"
#include "tests/support/wait_until.hpp"

namespace {

std::string line(const std::string& text) {
    return "2026-11-22T10:00:00.250000+0100 host quilagent[12]: QUIL:file.cpp(1): " + text + "\n";
}

std::string sessionOf(const std::string& app) {
    return line("addMessage: msg type[1] provider id[" + app + "] errorCode[0]");
}

constexpr const char* kSessionOfA = "10:00:00.250  a  createSession done\n";

class Monitor : public ::testing::Test {
  protected:
    void append(const std::string& text) { std::ofstream(m_log, std::ios::app) << text; }

    // Follows the file and has taken it up.
    std::unique_ptr<ToolProcess> follow(const std::vector<std::string>& more = {}) {
        append(sessionOf("of before"));
        std::vector<std::string> words = {"monitor", m_log, "--all"};
        words.insert(words.end(), more.begin(), more.end());
        auto monitor = std::make_unique<ToolProcess>(m_root.path(), "quilctl", words);
        EXPECT_TRUE(more.empty() ? monitor->waitFor("of before") : true);
        return monitor;
    }

    // What is run in the place of journalctl(1).
    void playJournal(const std::string& script) {
        std::filesystem::create_directories(m_root.path("/bin"));
        const std::string path = m_root.path("/bin/journalctl");
        std::ofstream(path) << "#!/bin/sh\necho $$ > '" << m_root.path("/pid") << "'\n"
                            << "echo \"$*\" > '" << m_root.path("/arguments") << "'\n"
                            << script << "\n";
        chmod(path.c_str(), 0755);
        setenv("PATH", (m_root.path("/bin") + ":" + std::getenv("PATH")).c_str(), 1);
    }

    std::string contentOf(const std::string& name) const {
        std::string text;
        std::getline(std::ifstream(m_root.path(name)), text);
        return text;
    }

    const ScratchRoot m_root;
    const std::string m_log = m_root.path("/log");
};

}  // namespace

TEST_F(Monitor, ShowsAFileAsItGrowsAndIsRotated) {
    const auto monitor = follow();
    append(sessionOf("a"));
    EXPECT_TRUE(monitor->waitFor(kSessionOfA)) << monitor->output << monitor->error;
    std::filesystem::rename(m_log, m_log + ".1");
    append(sessionOf("b"));
    EXPECT_TRUE(monitor->waitFor("b  createSession done\n")) << monitor->output;
}

TEST_F(Monitor, ShowsOnlyWhatIsNewUnlessItIsAsked) {
    append(sessionOf("a"));
    ToolProcess monitor(m_root.path(), "quilctl", {"monitor", m_log});
    // Whenever it is ready: one of these comes after that.
    for (int i = 0; i < 200 && monitor.output.empty(); ++i) {
        append(sessionOf("b"));
        monitor.waitFor("b  ", false, std::chrono::milliseconds(100));
    }
    EXPECT_EQ(monitor.output.substr(0, 16), "10:00:00.250  b ") << monitor.error;
    EXPECT_EQ(monitor.output.find("  a  "), std::string::npos);
}

TEST_F(Monitor, ShowsOneApplicationAlone) {
    ToolProcess monitor(m_root.path(), "quilctl", {"monitor", "-", "--app", "a"});
    monitor.type(sessionOf("ab") + sessionOf("a") + line("provider id not found!"));
    EXPECT_EQ(monitor.wait(), 0);
    EXPECT_EQ(monitor.output, kSessionOfA);
}

TEST_F(Monitor, AsJsonIsOneObjectPerLine) {
    ToolProcess monitor(m_root.path(), "quilctl", {"monitor", "-", "--json"});
    monitor.type(line("quilAgentLoop: Port 1 receiving data for App id [a]") +
                 line("serverIfProcessData 1: recved [68] bytes of data") +
                 line("quilAgentLoop: serverIfProcessData port [1] fd[9]"));
    EXPECT_EQ(monitor.wait(), 0);
    const auto object = nlohmann::json::parse(monitor.output);
    EXPECT_EQ(object["kind"], "push");
    EXPECT_EQ(object["app"], "a");
    EXPECT_EQ(object["event"], "arrived");
    EXPECT_EQ(object["bytes"], 68);
    EXPECT_EQ(object["time"], "10:00:00.250");
}

TEST_F(Monitor, ShowsTheWholeLifeOfAPush) {
    ToolProcess monitor(m_root.path(), "quilctl", {"monitor", "-"});
    monitor.type(line("quilAgentLoop: Port 1 receiving data for App id [a]") +
                 line("serverIfProcessData 1: recved [68] bytes of data") +
                 line("quilAgentLoop: serverIfProcessData port [1] fd[9]") + line("5 received") +
                 line("app id[a] clientId[@ipc.1]") +
                 line("sendMessage: Callback [pushNotification] for client id[@ipc.1] err[0] has "
                      "data[1]") +
                 line("addData: name [Push-Message-ID] value[ m1]") +
                 line("Wrote 144 bytes to pps.") + line("rejectPush called and Push id [ m1].") +
                 line("quilAgentLoop: All the valid ports are"));
    EXPECT_EQ(monitor.wait(), 0);
    EXPECT_EQ(monitor.output,
              "10:00:00.250  a  push arrived, 68 bytes\n"
              "10:00:00.250  a  push ' m1' delivered\n"
              "10:00:00.250  a  push ' m1' rejected\n");
}

TEST_F(Monitor, EndsWithStatus0WhenItIsInterrupted) {
    for (const int number : {SIGINT, SIGTERM}) {
        const auto monitor = follow();
        monitor->signal(number);
        EXPECT_EQ(monitor->wait(), 0);
        EXPECT_EQ(monitor->error, "");
    }
}

// At once, also when nothing happens any more.
TEST_F(Monitor, EndsWithStatus0WhenNobodyReadsIt) {
    const auto monitor = follow();
    monitor->closeOutput();
    EXPECT_EQ(monitor->wait(), 0);
    EXPECT_EQ(monitor->error, "");
}

TEST_F(Monitor, ReadsTheJournal) {
    playJournal("printf '%s\\n' '" + sessionOf("a") + "'; exec sleep 600");
    ToolProcess monitor(m_root.path(), "quilctl", {"monitor"});
    EXPECT_TRUE(monitor.waitFor(kSessionOfA)) << monitor.output << monitor.error;
    EXPECT_EQ(contentOf("/arguments"), "-u quilagent -f -n 0 -o short-iso-precise");
    const pid_t journal = std::atoi(contentOf("/pid").c_str());
    ASSERT_GT(journal, 1);
    monitor.signal(SIGINT);
    EXPECT_EQ(monitor.wait(), 0);
    EXPECT_TRUE(waitUntil([journal] { return kill(journal, 0) != 0; }));
}

TEST_F(Monitor, ReadsAllOfTheJournalWhenItIsAsked) {
    playJournal("exit 0");
    runTool(m_root.path(), "quilctl", {"monitor", "--all"});
    EXPECT_EQ(contentOf("/arguments"), "-u quilagent -f -n all -o short-iso-precise");
}

TEST_F(Monitor, OfALogThatCannotBeReadIsStatus3) {
    const ToolRun missing = runTool(m_root.path(), "quilctl", {"monitor", m_root.path("/none")});
    EXPECT_EQ(missing.status, 3);
    EXPECT_NE(missing.error.find("cannot read"), std::string::npos) << missing.error;
    playJournal("echo 'no journal here' >&2; exit 1");
    const ToolRun journal = runTool(m_root.path(), "quilctl", {"monitor"});
    EXPECT_EQ(journal.status, 3);
    EXPECT_NE(journal.error.find("no journal here"), std::string::npos) << journal.error;
    EXPECT_NE(journal.error.find("next:"), std::string::npos) << journal.error;
}

TEST_F(Monitor, OfSomethingElseOnStandardInputIsStatus1) {
    ToolProcess monitor(m_root.path(), "quilctl", {"monitor", "-"});
    monitor.type("nothing of the agent's\n");
    EXPECT_EQ(monitor.wait(), 1);
    EXPECT_NE(monitor.error.find("no line of the agent's log"), std::string::npos);
}
