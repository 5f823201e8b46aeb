// Start-up step by step, with the level of each line, run in a child process of the
// test. What cannot be made to fail otherwise is told to fail here.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "agent/configuration/config_manager.hpp"
#include "agent/process/start_up.hpp"
#include "agent/requests/permissions.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"
#include "tests/support/agent/process_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

enum class Missing { Nothing, Config, Permissions, Data, Sessions };
Missing g_missing = Missing::Nothing;
int g_report = -1;

void report(const std::string& text) {
    if (write(g_report, text.data(), text.size()) == -1) {
        std::abort();
    }
}

void reportLog() {
    finishLogEcho();
    report(recordedText());
}

struct Outcome {
    int status = -1;
    std::string log;
};

Outcome runMain(std::vector<std::string> words, Missing missing = Missing::Nothing) {
    int ends[2];
    if (pipe(ends) != 0) {
        return {};
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        g_report = ends[1];
        g_missing = missing;
        std::atexit(reportLog);
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        const int status = runAgent(static_cast<int>(words.size()), argv.data());
        reportLog();
        _exit(status);
    }
    close(ends[1]);
    Outcome outcome;
    char buffer[4096];
    for (ssize_t count = read(ends[0], buffer, sizeof buffer); count > 0;
         count = read(ends[0], buffer, sizeof buffer)) {
        outcome.log.append(buffer, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return outcome;
}

// Only the steps of main and what it calls directly, not the lines of the units behind them.
std::string stepsOf(const std::string& log) {
    const std::vector<std::string> begins = {
        "User/group",    "Init ",    "Initialize ",  "Failed to set", "Push Agent ",   "looking ",
        "Device PIN",    "proxy is", "getProxyHost", "timeout is",    "Data Manager:", "load:",
        "quilAgentInit", "Start ",   "Entering",     "QuilAgent:"};
    std::istringstream lines(log);
    std::string all;
    for (std::string line; std::getline(lines, line);) {
        for (const std::string& begin : begins) {
            all += line.size() > 2 && line.substr(2).starts_with(begin) ? line + "\n" : "";
        }
    }
    return all;
}

class Main : public ::testing::Test {
  protected:
    Outcome run(std::vector<std::string> options, Missing missing = Missing::Nothing) {
        std::vector<std::string> words = {"quilagent", "-U", std::to_string(geteuid())};
        words.insert(words.end(), options.begin(), options.end());
        return runMain(std::move(words), missing);
    }

    ProcessRoot m_root;
};

}  // namespace

// Each stands before the function of the agent's library that its name shows.
extern "C" {
QuilConfigManager* __real__ZN17QuilConfigManager11getInstanceEv();
QuilConfigManager* __wrap__ZN17QuilConfigManager11getInstanceEv();
QuilPermissions* __real__ZN15QuilPermissions11getInstanceEv();
QuilPermissions* __wrap__ZN15QuilPermissions11getInstanceEv();
QuilDataManager* __real__ZN15QuilDataManager11getInstanceEv();
QuilDataManager* __wrap__ZN15QuilDataManager11getInstanceEv();
QuilSessionManager* __real__ZN18QuilSessionManager11getInstanceEv();
QuilSessionManager* __wrap__ZN18QuilSessionManager11getInstanceEv();
void __wrap__Z12httpSetProxyPKci(const char* host, int port);
void __wrap__Z14httpSetTimeouti(int seconds);

QuilConfigManager* __wrap__ZN17QuilConfigManager11getInstanceEv() {
    return g_missing == Missing::Config ? nullptr : __real__ZN17QuilConfigManager11getInstanceEv();
}
QuilPermissions* __wrap__ZN15QuilPermissions11getInstanceEv() {
    return g_missing == Missing::Permissions ? nullptr
                                             : __real__ZN15QuilPermissions11getInstanceEv();
}
QuilDataManager* __wrap__ZN15QuilDataManager11getInstanceEv() {
    return g_missing == Missing::Data ? nullptr : __real__ZN15QuilDataManager11getInstanceEv();
}
QuilSessionManager* __wrap__ZN18QuilSessionManager11getInstanceEv() {
    return g_missing == Missing::Sessions ? nullptr
                                          : __real__ZN18QuilSessionManager11getInstanceEv();
}
void __wrap__Z12httpSetProxyPKci(const char* host, int port) {
    QUIL_LOG(LOG_LEVEL_INFO, "proxy is %s port %d", host, port);
}
void __wrap__Z14httpSetTimeouti(int seconds) {
    QUIL_LOG(LOG_LEVEL_INFO, "timeout is %d", seconds);
}
}

TEST_F(Main, StepsFollowEachOtherWithTheirLevels) {
    m_root.makePlatformWithoutClientObject();
    m_root.write("/etc/quilagent.conf", "proxy-host h\nproxy-port 8080\nhttp-timeout 60\n");
    const Outcome outcome = run({"-vv"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(stepsOf(outcome.log),
              "5 looking for [imsi]\n"
              "5 Initialize Configuration Manager - done.\n"
              "6 Push Agent 5.0.0\n"
              "5 looking for [PIN]\n"
              "5 looking for [scmbundle]\n"
              "5 looking for [HardwareID]\n"
              "6 Device PIN [2a3b] OS Version [10.3] Device Model [Model 9] IMSI[302720000000001]\n"
              "5 Initialize Session Manager - done\n"
              "6 getProxyHost: [h]\n"
              "5 proxy is h port 8080\n"
              "5 timeout is 60\n"
              "5 Data Manager: Load the saved session...\n"
              "6 load: is_same_sim [1]\n"
              "5 Data Manager: Load the saved session done.\n"
              "6 quilAgentInit - ENTER\n"
              "5 Initialize QUIL Agent - done\n"
              "5 Start Push Agent...\n"
              "5 Entering quilAgentLoop...\n"
              "2 QuilAgent: invalid client file descriptor -1\n");
}

TEST_F(Main, UserSpecIsLoggedAsDetailBeforeTheRaiseTakesEffect) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-vv"}).log.find("User/group spec"), std::string::npos);
    raiseVerbosity(1);
    const Outcome outcome = run({});
    EXPECT_EQ(outcome.log.find("6 User/group spec [" + std::to_string(geteuid()) + "]\n"), 0U)
        << outcome.log;
}

TEST_F(Main, RaisesAreAppliedOnceBehindAllOptions) {
    m_root.makePlatformWithoutClientObject();
    raiseVerbosity(1);
    const Outcome outcome = run({"-v", "-U", "no-such-user", "-v"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.log.find("6 User/group spec [no-such-user]\n"), std::string::npos)
        << outcome.log;
}

TEST_F(Main, RefusedCredentialsAreAnErrorBeforeTheDataManager) {
    m_root.makeQuietPlatform();
    const Outcome outcome = run({"-vv", "-U", "no-such-user"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(stepsOf(outcome.log),
              "5 looking for [imsi]\n"
              "5 Initialize Configuration Manager - done.\n"
              "6 Push Agent 5.0.0\n"
              "2 Failed to set credentials: Invalid user/group spec[no-such-user] errno[22] "
              "error[Invalid argument]\n");
    EXPECT_FALSE(std::filesystem::exists(m_root.at("/pps/services/push/quilagent")));
}

TEST_F(Main, NoConfigurationManagerIsAnError) {
    const Outcome outcome = run({"-vv"}, Missing::Config);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.log, "2 Init Configuration Manager failed.\n");
}

// Without them everybody might act for everything.
TEST_F(Main, NoPermissionsAreAnErrorBeforeTheChangeOfUser) {
    m_root.makeQuietPlatform();
    const Outcome outcome = run({"-vv", "-U", "no-such-user"}, Missing::Permissions);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(stepsOf(outcome.log),
              "5 looking for [imsi]\n"
              "5 Initialize Configuration Manager - done.\n"
              "6 Push Agent 5.0.0\n"
              "2 Init Permissions failed.\n");
}

TEST_F(Main, NoDataManagerIsAnError) {
    m_root.makeQuietPlatform();
    const Outcome outcome = run({"-vv"}, Missing::Data);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(stepsOf(outcome.log),
              "5 looking for [imsi]\n"
              "5 Initialize Configuration Manager - done.\n"
              "6 Push Agent 5.0.0\n"
              "2 Init Data Manager failed.\n");
}

TEST_F(Main, NoSessionManagerEndsTheStartWithoutALine) {
    m_root.makeQuietPlatform();
    const Outcome outcome = run({"-vv"}, Missing::Sessions);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.log.ends_with(
        "6 Device PIN [2a3b] OS Version [10.3] Device Model [Model 9] IMSI[302720000000001]\n"))
        << outcome.log;
}

TEST_F(Main, SavedSessionsThatCannotBeLoadedDoNotStopTheStart) {
    m_root.makePlatformWithoutClientObject();
    m_root.write("/pps/services/push/quilagent", "@quilagent\ndat:json:{damaged\n");
    const Outcome outcome = run({"-vv"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.log.find("5 Data Manager: Load the saved session done.\n"),
              std::string::npos);
    EXPECT_NE(outcome.log.find("5 Start Push Agent...\n"), std::string::npos);
}

TEST_F(Main, DeviceWithoutValuesStartsWithEmptyOnes) {
    m_root.makeFolder("/pps/services/push/ipc?server");
    const Outcome outcome = run({"-vv"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.log.find("6 Device PIN [] OS Version [] Device Model [] IMSI[]\n"),
              std::string::npos)
        << outcome.log;
}
