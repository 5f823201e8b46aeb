// The real program, started in a scratch root: its command line, its standard descriptors, what it
// shows of itself and how it ends.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/agent/in_child.hpp"
#include "tests/support/agent/process_fixture.hpp"

namespace {

// What the child does before it becomes the program.
struct Setting {
    std::vector<int> closed = {};  // descriptors that it shall not have
    rlim_t openFiles = 0;          // soft limit, 0 to leave it
    bool isDevHidden = false;      // an empty /dev
    int output = -1;               // standard output; a file of the test when -1
    bool isOrdinary = false;       // an ordinary user, also when the test is root's
    std::string preloaded = {};    // name of a library of tests/support/preload
};

bool hideDev() {
    if (unshare(CLONE_NEWNS) != 0) {
        return false;
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

std::string programPath() {
    const char* folder = std::getenv("QUIL_BIN");
    if (folder != nullptr) {
        return std::string(folder) + "/quilagent";
    }
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "quilagent";
}

// The user that this test may run the program as: its own.
std::string ownUser() {
    return std::to_string(geteuid());
}

class Startup : public ::testing::Test {
  protected:
    ~Startup() override { stop(); }

    void start(const std::vector<std::string>& arguments, const Setting& setting = {}) {
        std::vector<std::string> words = {programPath()};
        words.insert(words.end(), arguments.begin(), arguments.end());
        m_child = fork();
        if (m_child == 0) {
            become(words, setting);
        }
    }

    // Exit status, 128 + signal when it was killed, -1 when it did not end in time.
    int waitForEnd() {
        int status = 0;
        const bool isDone =
            waitUntil([&] { return waitpid(m_child, &status, WNOHANG) == m_child; });
        if (!isDone) {
            return -1;
        }
        m_child = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int run(const std::vector<std::string>& arguments, const Setting& setting = {}) {
        start(arguments, setting);
        return waitForEnd();
    }
    void stop() {
        if (m_child > 0) {
            kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
            m_child = -1;
        }
    }

    std::string output() const { return readFile(m_root.at("/stdout")); }
    std::string errors() const { return readFile(m_root.at("/stderr")); }

    // Starts and waits until the program has nothing left to do.
    void startAndIdle(const std::vector<std::string>& arguments, const Setting& setting = {}) {
        start(arguments, setting);
        ASSERT_TRUE(waitUntil([this] { return isIdle(output()); })) << output() << errors();
    }
    static bool isIdle(const std::string& text) {
        return text.find("quilAgentLoop: Waiting (select)...\n") != std::string::npos;
    }

    // What stands behind "FIELD:" in a file about the running program.
    std::string statusOf(const std::string& field) const {
        std::istringstream lines(readFile("/proc/" + std::to_string(m_child) + "/status"));
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with(field + ":")) {
                std::istringstream words(line.substr(field.size() + 1));
                std::string all;
                for (std::string word; words >> word;) {
                    all += (all.empty() ? "" : " ") + word;
                }
                return all;
            }
        }
        return "(none)";
    }
    std::string descriptorOf(int number) const {
        std::error_code error;
        const auto target = std::filesystem::read_symlink(
            "/proc/" + std::to_string(m_child) + "/fd/" + std::to_string(number), error);
        return error ? "(closed)" : target.string();
    }
    // Lines of the start-up itself and of the settings, in order, without file and number.
    static std::string linesOf(const std::string& text, std::initializer_list<const char*> files) {
        std::istringstream lines(text);
        std::string all;
        for (std::string line; std::getline(lines, line);) {
            for (const char* file : files) {
                if (line.starts_with(std::string("QUIL:") + file + "(")) {
                    all += line.substr(line.find("): ") + 3) + "\n";
                }
            }
        }
        return all;
    }
    void giveEverythingTo(uid_t user) const {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_root.at("/pps"))) {
            ASSERT_EQ(chown(entry.path().c_str(), user, user), 0) << entry.path();
        }
    }

    ProcessRoot m_root;
    pid_t m_child = -1;

  private:
    [[noreturn]] void become(const std::vector<std::string>& words, const Setting& setting) const {
        const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
        const int out =
            setting.output != -1 ? setting.output : open(m_root.at("/stdout").c_str(), flags, 0666);
        const int err = open(m_root.at("/stderr").c_str(), flags, 0666);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        for (int descriptor = 3; descriptor < 256; ++descriptor) {
            close(descriptor);
        }
        if (setting.isDevHidden && !hideDev()) {
            _exit(77);
        }
        for (const int descriptor : setting.closed) {
            close(descriptor);
        }
        if (setting.openFiles != 0) {
            rlimit limit{};
            getrlimit(RLIMIT_NOFILE, &limit);
            limit.rlim_cur = setting.openFiles;
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        if (setting.isOrdinary && !becomeOrdinaryUser()) {
            _exit(77);
        }
        if (!setting.preloaded.empty()) {
            const std::string folder =
                std::filesystem::path(programPath()).parent_path().parent_path() / "lib";
            setenv("LD_PRELOAD", (folder + "/quil_preload_" + setting.preloaded + ".so").c_str(),
                   1);
            const char* options = getenv("ASAN_OPTIONS");
            setenv("ASAN_OPTIONS",
                   (std::string(options == nullptr ? "" : options) +
                    ":verify_asan_link_order=0:alloc_dealloc_mismatch=0")
                       .c_str(),
                   1);
        }
        std::signal(SIGPIPE, SIG_DFL);
        std::vector<char*> argv;
        for (const std::string& word : words) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
};

using StartupOfRoot = Startup;

const std::string kUsage =
    "Usage: quilagent [options] [&]\n"
    "where [options] can be\n"
    "  -U credentials\n"
    "  -v         debug mode level 2..6\n";

}  // namespace

TEST_F(Startup, UnknownOptionShowsTheUsageAndFails) {
    EXPECT_EQ(run({"-x"}), 1);
    EXPECT_EQ(errors(), kUsage);
    EXPECT_EQ(output(), "");
}

TEST_F(Startup, UserOptionWithoutItsArgumentShowsTheUsageAndFails) {
    EXPECT_EQ(run({"-v", "-U"}), 1);
    EXPECT_EQ(errors(), kUsage);
    EXPECT_EQ(output(), "");
}

TEST_F(Startup, LongOptionsAreUnknown) {
    EXPECT_EQ(run({"--help"}), 1);
    EXPECT_EQ(errors(), kUsage);
}

TEST_F(Startup, UnknownOptionBehindGoodOnesShowsTheUsage) {
    EXPECT_EQ(run({"-U", ownUser(), "-vz"}), 1);
    EXPECT_EQ(errors(), kUsage);
}

TEST_F(Startup, UnknownUserFailsWithAnInvalidArgument) {
    m_root.makeQuietPlatform();
    EXPECT_EQ(run({"-U", "no-such-user"}), 1);
    EXPECT_EQ(linesOf(output(), {"start_up.cpp"}),
              "Initialize Configuration Manager - done.\n"
              "Failed to set credentials: Invalid user/group spec[no-such-user] errno[22] "
              "error[Invalid argument]\n");
    EXPECT_EQ(errors(), "");
}

TEST_F(Startup, EmptyUserOptionIsAnUnknownUserAndNotTheSetting) {
    m_root.write("/etc/quilagent.conf", "user " + ownUser() + "\n");
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", ""}), 1);
}

TEST_F(Startup, UserOfTheFileIsUsedWithoutTheOption) {
    m_root.write("/etc/quilagent.conf", "user no-such-user\n");
    EXPECT_EQ(run({}), 1);
    EXPECT_NE(output().find("spec[no-such-user]"), std::string::npos) << output();
}

TEST_F(Startup, UserOptionWinsOverTheFile) {
    m_root.write("/etc/quilagent.conf", "user no-such-user\n");
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", ownUser()}), 0) << output();
}

TEST_F(Startup, LastUserOptionCounts) {
    m_root.makePlatformWithoutClientObject();
    EXPECT_EQ(run({"-U", "no-such-user", "-U", ownUser()}), 0) << output();
}

TEST_F(Startup, OrdinaryUserMayNotTakeTheDefaultUser) {
    const std::string program = programPath();
    if (asOrdinaryUser([&] { return access(program.c_str(), X_OK) == 0 ? "yes" : "no"; }) !=
        "yes") {
        GTEST_SKIP() << "NOT TESTED: an ordinary user may not reach " << program;
    }
    Setting setting;
    setting.isOrdinary = true;
    EXPECT_EQ(run({}, setting), 1);
    EXPECT_NE(output().find("Failed to set credentials: Invalid user/group spec[44:44,0,320] "
                            "errno[1] error[Operation not permitted]\n"),
              std::string::npos)
        << output();
}

TEST_F(StartupOfRoot, DefaultIsUser44Group44AndGroups0And320) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can switch to other users";
    }
    m_root.makeQuietPlatform();
    giveEverythingTo(44);
    startAndIdle({});
    EXPECT_EQ(statusOf("Uid"), "44 44 44 44");
    EXPECT_EQ(statusOf("Gid"), "44 44 44 44");
    EXPECT_EQ(statusOf("Groups"), "0 320");
}

TEST_F(StartupOfRoot, FilesOfTheAgentBelongToTheUserItSwitchedTo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can switch to other users";
    }
    m_root.makeQuietPlatform();
    giveEverythingTo(45);
    startAndIdle({"-U", "45:46"});
    struct stat entry {};
    ASSERT_EQ(stat(m_root.at("/pps/services/push/quilagent").c_str(), &entry), 0);
    EXPECT_EQ(entry.st_uid, 45U);
    EXPECT_EQ(entry.st_gid, 46U);
}

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
