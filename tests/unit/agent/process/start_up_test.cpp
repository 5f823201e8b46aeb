// The real program as a process: its descriptors, limits, signals and threads, and how it ends.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "tests/unit/agent/process/start_up_fixture.hpp"

TEST_F(Startup, ClosedStandardDescriptorsAreOpenedOnDevNull) {
    m_root.makeQuietPlatform();
    Setting setting;
    setting.closed = {0, 1, 2};
    start({"-U", ownUser()}, setting);
    const std::string object = m_root.at("/pps/services/push/ipc?server");
    int client = -1;
    ASSERT_TRUE(waitUntil([&] {
        for (int descriptor = 0; descriptor < 64; ++descriptor) {
            client = descriptorOf(descriptor) == object ? descriptor : client;
        }
        return client != -1;
    }));
    EXPECT_GT(client, 2);
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        EXPECT_EQ(descriptorOf(descriptor), "/dev/null") << descriptor;
    }
}

TEST_F(Startup, OpenStandardDescriptorsStayWhatTheyAre) {
    m_root.makeQuietPlatform();
    Setting setting;
    setting.closed = {0};
    startAndIdle({"-U", ownUser()}, setting);
    EXPECT_EQ(descriptorOf(0), "/dev/null");
    EXPECT_EQ(descriptorOf(1), m_root.at("/stdout"));
    EXPECT_EQ(descriptorOf(2), m_root.at("/stderr"));
}

TEST_F(Startup, WithoutDevNullAClosedDescriptorEndsTheStartWithAReason) {
    Setting setting;
    setting.closed = {0};
    setting.isDevHidden = true;
    const int status = run({"-U", ownUser()}, setting);
    if (status == 77) {
        GTEST_SKIP() << "no mount namespace to be had";
    }
    EXPECT_EQ(status, 1);
    EXPECT_EQ(errors(), "quilagent: /dev/null: No such file or directory\n");
}

TEST_F(Startup, EveryOtherDescriptorIsClosedOnExec) {
    m_root.makeQuietPlatform();
    startAndIdle({"-U", ownUser()});
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(m_child) + "/fdinfo")) {
        const int descriptor = std::stoi(entry.path().filename());
        const std::string info = readFile(entry.path());
        const std::size_t at = info.find("flags:\t");
        ASSERT_NE(at, std::string::npos) << info;
        const long flags = std::strtol(info.c_str() + at + 7, nullptr, 8);
        if (descriptor > 2) {
            EXPECT_NE(flags & O_CLOEXEC, 0) << descriptorOf(descriptor);
        }
    }
}

TEST_F(Startup, LimitOfOpenFilesIsRaisedToItsMost) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    m_root.makeQuietPlatform();
    Setting setting;
    setting.openFiles = 64;
    startAndIdle({"-U", ownUser()}, setting);
    rlimit found{};
    ASSERT_EQ(prlimit(m_child, RLIMIT_NOFILE, nullptr, &found), 0);
    EXPECT_EQ(found.rlim_cur, limit.rlim_max);
    EXPECT_EQ(found.rlim_max, limit.rlim_max);
}

TEST_F(Startup, BrokenPipesAreIgnoredAndOtherSignalsKeepTheirDefault) {
    m_root.makeQuietPlatform();
    startAndIdle({"-U", ownUser()});
    const auto bit = [](int signal) { return 1ULL << (signal - 1); };
    const unsigned long long ignored = std::stoull(statusOf("SigIgn"), nullptr, 16);
    const unsigned long long caught = std::stoull(statusOf("SigCgt"), nullptr, 16);
    EXPECT_NE(ignored & bit(SIGPIPE), 0U);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGCHLD}) {
        EXPECT_EQ((ignored | caught) & bit(signal), 0U) << strsignal(signal);
    }
}

TEST_F(Startup, TerminationEndsTheProgramAtOnce) {
    m_root.makeQuietPlatform();
    startAndIdle({"-U", ownUser()});
    kill(m_child, SIGTERM);
    EXPECT_EQ(waitForEnd(), 128 + SIGTERM);
}

TEST_F(Startup, ProgramStaysInTheForegroundAndInItsSession) {
    m_root.makeQuietPlatform();
    startAndIdle({"-U", ownUser()});
    EXPECT_EQ(statusOf("PPid"), std::to_string(getpid()));
    EXPECT_EQ(getsid(m_child), getsid(0));
    EXPECT_EQ(getpgid(m_child), getpgid(0));
}

TEST_F(Startup, TwoThreadsRunAndTheSecondHasItsName) {
    m_root.makeQuietPlatform();
    startAndIdle({"-U", ownUser()});
    const auto names = [this] {
        std::string all;
        for (const auto& entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(m_child) + "/task")) {
            all += readFile(entry.path() / "comm");
        }
        return all;
    };
    // The second thread names itself in its own time. A sanitizer may have a thread of its own.
    const auto hasBoth = [&names] {
        const std::string all = names();
        return all.find("quilagent\n") == 0 && all.ends_with("MSG HANDLER\n");
    };
    EXPECT_TRUE(waitUntil(hasBoth)) << names();
}

// The other threads run until the very end; a library taken down under them crashes the process.
TEST_F(Startup, EndingLoopLeavesTheLibrariesAlone) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", ownUser()}, {.preloaded = "taken_down"}), 0);
    EXPECT_EQ(errors().find("libraries were taken down"), std::string::npos) << errors();
    EXPECT_NE(output().find("QuilAgent: invalid client file descriptor -1\n"), std::string::npos)
        << "the last lines are shown all the same";
}

// Whatever allocation it is that fails, there is an end or a start, never a crash, and the lines up
// to it are shown.
TEST_F(Startup, WantOfMemoryEndsTheStartWithItsReason) {
    m_root.makePlatformWithoutClientObject();
    m_root.write("/etc/quilagent.conf",
                 "transport with a value that is too long for a small string\n");
    int survived = 0;
    int refused = 0;
    for (int number = 1; survived < 3; ++number) {
        ASSERT_LT(number, 2000) << "the start never gets by with all its memory";
        setenv("QUIL_FAILING_NEW", std::to_string(number).c_str(), 1);
        const int status = run({"-v", "-v", "-U", ownUser()}, {.preloaded = "failing_new"});
        ASSERT_TRUE(status == 0 || status == 1) << number << ": " << status << "\n" << errors();
        const std::string text = output();
        if (status == 1) {
            ++refused;
            survived = 0;
            // A session manager that cannot be made is the one failure without a line of its own.
            const bool isSessionManager =
                text.substr(0, text.size() - 1).rfind('\n') < text.rfind("Device PIN [");
            ASSERT_TRUE(text.find("The agent gives up: ") != std::string::npos ||
                        text.find(" failed.") != std::string::npos || isSessionManager)
                << number << "\n"
                << text;
        } else if (text.find("exception") == std::string::npos) {
            ++survived;  // three in a row: the number is beyond the last allocation
        } else {
            survived = 0;
        }
    }
    unsetenv("QUIL_FAILING_NEW");
    EXPECT_GT(refused, 10);
}
