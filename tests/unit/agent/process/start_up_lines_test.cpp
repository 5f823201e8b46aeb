// What the real program shows of its start: which lines, in which order, how and when they are
// written.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "tests/unit/agent/process/start_up_fixture.hpp"

TEST_F(Startup, LinesOfTheStartStandInTheirOrder) {
    m_root.write("/etc/quilagent.conf", "name Agent\nversion 9\nproxy-host h\n");
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-v", "-U", ownUser()}), 0);
    EXPECT_EQ(linesOf(output(), {"start_up.cpp", "event_loop.cpp"}),
              "Initialize Configuration Manager - done.\n"
              "Agent 9\n"
              "Device PIN [2a3b] OS Version [10.3] Device Model [Model 9] IMSI[302720000000001]\n"
              "Initialize Session Manager - done\n"
              "Data Manager: Load the saved session...\n"
              "Data Manager: Load the saved session done.\n"
              "quilAgentInit - ENTER\n"
              "Initialize QUIL Agent - done\n"
              "Start Agent...\n"
              "quilAgentLoop: All the valid ports are\n"
              "ports->size() = 0\n"
              "Entering quilAgentLoop...\n"
              "quilAgentLoop: Waiting (select)...\n"
              "QuilAgent: invalid client file descriptor -1\n");
}

TEST_F(Startup, MissingConfigurationFileIsNoFailure) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-v", "-U", ownUser()}), 0);
    EXPECT_NE(output().find("Cannot open input file /etc/quilagent.conf.\n"), std::string::npos);
    EXPECT_NE(output().find("): Push Agent 5.0.0\n"), std::string::npos) << output();
    EXPECT_NE(output().find("): Start Push Agent...\n"), std::string::npos) << output();
}

TEST_F(Startup, EmptyRootIsSurvivedUntilTheClientObjectIsMissed) {
    EXPECT_EQ(run({"-U", ownUser()}), 0);
    EXPECT_NE(output().find("QuilAgent: invalid client file descriptor -1\n"), std::string::npos);
}

TEST_F(Startup, DeviceValuesAreReadInTheOrderPinOsVersionModelAlsoWhenNotShown) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", ownUser()}), 0);
    std::string order;
    std::istringstream lines(output());
    for (std::string line; std::getline(lines, line);) {
        const std::size_t at = line.find("looking for [");
        order += at == std::string::npos ? "" : line.substr(at + 12);
    }
    EXPECT_EQ(order, "[imsi][PIN][scmbundle][HardwareID]");
    EXPECT_EQ(output().find("Device PIN"), std::string::npos);
}

TEST_F(Startup, WithoutVThereIsNoDetail) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", ownUser()}), 0);
    EXPECT_EQ(output().find("quilAgentInit - ENTER"), std::string::npos);
    EXPECT_EQ(output().find("Push Agent 5.0.0"), std::string::npos);
    EXPECT_NE(output().find("Initialize QUIL Agent - done"), std::string::npos);
}

TEST_F(Startup, OneVShowsDetail) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", ownUser(), "-v"}), 0);
    EXPECT_NE(output().find("quilAgentInit - ENTER"), std::string::npos);
}

TEST_F(Startup, UserSpecIsNeverShownWhateverTheOrderOfTheOptions) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-vvvv", "-U", ownUser(), "-v"}), 0);
    EXPECT_EQ(output().find("User/group spec ["), std::string::npos);
}

TEST_F(Startup, StandardOutputHasAllLinesAsSoonAsTheProgramIdles) {
    m_root.makeQuietPlatform();
    startAndIdle({"-v", "-U", ownUser()});
    kill(m_child, SIGKILL);
    EXPECT_EQ(waitForEnd(), 128 + SIGKILL);
    EXPECT_TRUE(output().ends_with("\n")) << output();
    EXPECT_NE(output().find("Start Push Agent..."), std::string::npos);
}

TEST_F(Startup, StandardOutputHasAllLinesOfAFailedStart) {
    EXPECT_EQ(run({"-U", "no-such-user"}), 1);
    EXPECT_NE(output().find("Failed to set credentials"), std::string::npos);
}

// On a terminal, where the C library by itself would write out each line.
TEST_F(Startup, EchoIsWrittenInFewPieces) {
    m_root.makeQuietPlatform();
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    Setting setting;
    setting.output = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_NE(setting.output, -1);
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    start({"-v", "-U", ownUser()}, setting);
    std::string text;
    const bool isShown = waitUntil([&] {
        char buffer[4096];
        const ssize_t count = read(terminal, buffer, sizeof buffer);
        text.append(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
        return text.find("Waiting (select)...") != std::string::npos;
    });
    ASSERT_TRUE(isShown) << text;
    const std::string io = readFile("/proc/" + std::to_string(m_child) + "/io");
    const std::size_t at = io.find("syscw: ");
    ASSERT_NE(at, std::string::npos) << io;
    const auto lines = std::count(text.begin(), text.end(), '\n');
    EXPECT_GT(lines, 40);
    // It is written out before each call that may wait. A few belong to others than the echo: the
    // wake-up, a sanitizer's own.
    EXPECT_LT(std::stoi(io.substr(at + 7)), lines * 3 / 4) << "system calls that wrote";
    close(setting.output);
    close(terminal);
}

TEST_F(Startup, SilentReaderOfStandardOutputThatGoesAwayDoesNotEndTheProgram) {
    m_root.makeQuietPlatform();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Setting setting;
    setting.output = ends[1];
    start({"-U", ownUser()}, setting);
    close(ends[1]);
    close(ends[0]);
    const std::string object = m_root.at("/pps/services/push/ipc?server");
    ASSERT_TRUE(waitUntil([&] {
        for (int descriptor = 3; descriptor < 64; ++descriptor) {
            if (descriptorOf(descriptor) == object) {
                return true;
            }
        }
        return false;
    }));
    EXPECT_EQ(waitpid(m_child, nullptr, WNOHANG), 0) << "the program has ended";
}

// An object service that does not answer holds the start up; what came before is to be seen.
TEST_F(Startup, LinesAreShownBeforeAnObjectThatDoesNotOpenIsWaitedFor) {
    m_root.makeQuietPlatform();
    const std::string sim = m_root.at("/pps/services/cellular/uicc/card0/status_private");
    std::filesystem::remove(sim);
    ASSERT_EQ(mkfifo(sim.c_str(), 0600), 0);  // opening it waits for somebody who writes
    start({"-U", ownUser()});
    EXPECT_TRUE(waitUntil([this] {
        return output().find("Cannot open input file /etc/quilagent.conf.") != std::string::npos;
    })) << output();
}
