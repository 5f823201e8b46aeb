// The system log against a real log socket: each test puts a /dev of its own in a private mount
// namespace, listens on /dev/log and reads what arrives. Calls that concern the socket are counted
// on their way to the C library.

#include "platform/slog/slog.hpp"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/wait_until.hpp"

namespace {

std::atomic<int> g_socketCalls = 0;
std::atomic<int> g_connectCalls = 0;
std::atomic<int> g_sendCalls = 0;
std::time_t g_fixedTime = 0;  // 0 for what the clock says

// The function that would have been called without the one of this program.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {
int socket(int family, int type, int protocol) noexcept {
    ++g_socketCalls;
    return next<int (*)(int, int, int)>("socket")(family, type, protocol);
}
int connect(int descriptor, const sockaddr* address, socklen_t length) {
    ++g_connectCalls;
    return next<int (*)(int, const sockaddr*, socklen_t)>("connect")(descriptor, address, length);
}
std::time_t time(std::time_t* result) noexcept {
    const std::time_t now =
        g_fixedTime != 0 ? g_fixedTime : next<std::time_t (*)(std::time_t*)>("time")(nullptr);
    if (result != nullptr) {
        *result = now;
    }
    return now;
}
int sendmmsg(int descriptor, mmsghdr* messages, unsigned count, int flags) {
    ++g_sendCalls;
    return next<int (*)(int, mmsghdr*, unsigned, int)>("sendmmsg")(descriptor, messages, count,
                                                                   flags);
}
ssize_t send(int descriptor, const void* bytes, std::size_t length, int flags) {
    ++g_sendCalls;
    return next<ssize_t (*)(int, const void*, std::size_t, int)>("send")(descriptor, bytes, length,
                                                                         flags);
}
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
namespace {

// Allocations of this thread while it counts, those of the C library too.
thread_local bool t_counts = false;
thread_local int t_allocations = 0;

}  // namespace

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) {
    t_allocations += t_counts ? 1 : 0;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    t_allocations += t_counts ? 1 : 0;
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    t_allocations += t_counts ? 1 : 0;
    return __libc_realloc(block, size);
}
}
#endif

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

int countDescriptors() {
    int count = 0;
    DIR* folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr) {
        ++count;
    }
    closedir(folder);
    return count;
}

void writeFile(const char* path, const std::string& text) {
    std::ofstream(path) << text;
}

// A /dev without anything in it, seen by this process alone. As an ordinary user inside a user
// namespace.
bool hideDev() {
    if (unshare(CLONE_NEWNS) != 0) {
        const std::string user = std::to_string(getuid());
        const std::string group = std::to_string(getgid());
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/uid_map", "0 " + user + " 1");
        writeFile("/proc/self/gid_map", "0 " + group + " 1");
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

constexpr int kDaemon = 3 << 3;

std::string priority(int level) {
    return "<" + std::to_string(kDaemon | level) + ">";
}

// A socket on /dev/log, in place of what is there.
int listenForLines() {
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    unlink(address.sun_path);
    EXPECT_EQ(bind(log, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return log;
}

// The number in "<28>N lines lost", -1 for another line.
int lostLines(const std::string& line) {
    int count = -1;
    char rest = '\0';
    const std::string format = priority(4) + "%d lines los%c";
    return std::sscanf(line.c_str(), format.c_str(), &count, &rest) == 2 && rest == 't' ? count
                                                                                        : -1;
}

class Slog : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!hideDev()) {
            GTEST_SKIP() << "no mount namespace to be had: " << std::strerror(errno);
        }
        m_log = listenForLines();
        g_socketCalls = 0;
    }

    void endDaemon() {
        close(m_log);
        m_log = -1;
        unlink("/dev/log");
    }

    // As it arrived; "(nothing)" when there is none within `milliseconds`.
    std::string nextDatagram(int milliseconds = 0) {
        char buffer[8192];
        pollfd log{m_log, POLLIN, 0};
        poll(&log, 1, milliseconds);
        const ssize_t length = recv(m_log, buffer, sizeof buffer, MSG_DONTWAIT);
        return length < 0 ? "(nothing)" : std::string(buffer, static_cast<std::size_t>(length));
    }

    // The priority and the text of the next line, without the time stamp: "<27>quilagent[...]:
    // text".
    std::string nextLine(int milliseconds = 0) {
        const std::string line = nextDatagram(milliseconds);
        if (line == "(nothing)") {
            return line;
        }
        const std::size_t ident = line.find("quilagent[");
        const std::size_t text = line.find("]: ", ident);
        if (ident == std::string::npos || text == std::string::npos) {
            return "(without ident) " + line;
        }
        return line.substr(0, line.find('>') + 1) + line.substr(text + 3);
    }

    // All that have arrived.
    std::vector<std::string> allLines() {
        std::vector<std::string> lines;
        for (std::string line = nextLine(); line != "(nothing)"; line = nextLine()) {
            lines.push_back(line);
        }
        return lines;
    }

    int m_log = -1;
};

// The numbers of the sockets that this process has open.
std::vector<int> openSockets() {
    std::vector<int> sockets;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        struct stat status {};
        if (fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode)) {
            sockets.push_back(descriptor);
        }
    }
    return sockets;
}

}  // namespace

TEST_F(Slog, SeveritiesMapToThoseOfSyslog) {
    const int expected[] = {0, 2, 3, 4, 5, 6, 7, 7};
    for (int severity = 0; severity < 8; ++severity) {
        slogf(11000, severity, "line %d", severity);
        EXPECT_EQ(nextLine(), priority(expected[severity]) + "line " + std::to_string(severity));
    }
}

TEST_F(Slog, SeveritiesOutsideTheRangeAreTakenToItsEnds) {
    slogf(11000, -1, "low");
    EXPECT_EQ(nextLine(), priority(0) + "low");
    slogf(11000, 8, "high");
    EXPECT_EQ(nextLine(), priority(7) + "high");
}

TEST_F(Slog, TrailingLineFeedsAreDropped) {
    slogf(11000, 5, "%s", "text\n\n");
    EXPECT_EQ(nextLine(), priority(6) + "text");
    slogf(11000, 5, "%s", "\n\n");
    EXPECT_EQ(nextLine(), priority(6));
}

TEST_F(Slog, ControlBytesCannotForgeALine) {
    slogf(11000, 5, "%s", "a\nquilagent: b\r\x1b[0m\x7f");
    EXPECT_EQ(nextLine(), priority(6) + "a quilagent: b  [0m ");
}

TEST_F(Slog, TextIsNeverAFormat) {
    slogf(11000, 5, "%s", "%s%n%d");
    EXPECT_EQ(nextLine(), priority(6) + "%s%n%d");
}

TEST_F(Slog, LongTextIsCut) {
    slogf(11000, 5, "%s", std::string(10000, 'x').c_str());
    EXPECT_EQ(nextLine(), priority(6) + std::string(4351, 'x'));
}

TEST_F(Slog, LineIsTheOneThatSyslogWouldSend) {
    openlog("quilagent", LOG_PID, LOG_DAEMON);
    std::string expected;
    std::string line;
    // Both within one second.
    for (int i = 0; i < 3 && (i == 0 || line != expected); ++i) {
        syslog(LOG_INFO, "text %d", 7);
        slogf(11000, 5, "text %d", 7);
        expected = nextDatagram();
        line = nextDatagram();
    }
    EXPECT_EQ(line, expected);
}

TEST_F(Slog, DayAndTimeOfOneDigitArePadded) {
    setenv("TZ", "UTC0", 1);
    g_fixedTime = 1772683382;  // 2026-03-05 04:03:02
    slogf(11000, 5, "text");
    EXPECT_EQ(nextDatagram(),
              priority(6) + "Mar  5 04:03:02 quilagent[" + std::to_string(getpid()) + "]: text");
}

TEST_F(Slog, LineCostsOneCall) {
    for (int i = 0; i < 100; ++i) {
        slogf(11000, 5, "line %d", i);
        nextLine();
    }
    EXPECT_EQ(g_socketCalls, 1);
    EXPECT_EQ(g_connectCalls, 1);
    EXPECT_EQ(g_sendCalls, 100);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Slog, LineAllocatesNothing) {
    const std::string longText(10000, 'x');
    g_fixedTime = 1772683382;  // the time zone is asked for once a second
    slogf(11000, 5, "first");
    t_counts = true;
    slogf(11000, 5, "%s", longText.c_str());
    for (int i = 0; i < 1000; ++i) {
        slogf(11000, 5, "line %d", i);
    }
    t_counts = false;
    EXPECT_EQ(t_allocations, 0);
    EXPECT_EQ(nextLine(), priority(6) + "first");
    EXPECT_EQ(nextLine(), priority(6) + std::string(4351, 'x'));
    t_counts = true;
    void* volatile block = malloc(10);  // not to be left out by the compiler
    free(block);
    t_counts = false;
    EXPECT_EQ(t_allocations, 1) << "the counter counts";
}
#endif

TEST_F(Slog, ManyLinesCostOneCallAndArriveInTheirOrder) {
    std::vector<std::string> texts;
    std::vector<SlogEntry> entries;
    for (int i = 0; i < 8; ++i) {
        texts.push_back("line " + std::to_string(i));
    }
    for (std::size_t i = 0; i < texts.size(); ++i) {
        entries.push_back({static_cast<int>(i), texts[i].data(), texts[i].size()});
    }
    slogLines(11000, entries.data(), entries.size());
    EXPECT_EQ(g_sendCalls, 1);
    const std::vector<std::string> arrived = allLines();
    for (int i = 0; i < 8; ++i) {
        slogf(11000, i, "line %d", i);
    }
    EXPECT_EQ(arrived, allLines());
}

TEST_F(Slog, LineThatHasToBeMadeSafeKeepsItsPlaceAmongMany) {
    const std::string texts[] = {"one", "forged\n<0>line", "three\n\n", "", std::string(5000, 'x')};
    std::vector<SlogEntry> entries;
    for (const std::string& text : texts) {
        entries.push_back({5, text.data(), text.size()});
    }
    slogLines(11000, entries.data(), entries.size());
    EXPECT_EQ(allLines(),
              (std::vector<std::string>{priority(6) + "one", priority(6) + "forged <0>line",
                                        priority(6) + "three", priority(6),
                                        priority(6) + std::string(4351, 'x')}));
}

TEST_F(Slog, ManyLinesThatADaemonDoesNotReadAreCounted) {
    const std::string text = "text";
    const std::vector<SlogEntry> entries(5000, {5, text.data(), text.size()});
    slogLines(11000, entries.data(), entries.size());
    const std::size_t arrived = allLines().size();
    EXPECT_GT(arrived, 0U);
    EXPECT_LT(g_sendCalls, 100) << "a daemon that takes nothing is not asked for each line";
    slogLines(11000, entries.data(), 1);
    EXPECT_EQ(nextLine(), priority(4) + std::to_string(5000 - arrived) + " lines lost");
    EXPECT_EQ(nextLine(), priority(6) + "text");
}

TEST_F(Slog, ManyLinesThatADaemonGoesOnNotReadingCostOneCallEachTime) {
    const std::vector<SlogEntry> entries(1000, {5, "line", 4});
    slogLines(11000, entries.data(), entries.size());
    slogLines(11000, entries.data(), entries.size());
    const int calls = g_sendCalls;
    slogLines(11000, entries.data(), entries.size());
    EXPECT_EQ(g_sendCalls, calls + 1) << "that of the number of those lost";
}

TEST_F(Slog, DaemonStartedAnewGetsTheNextLines) {
    slogf(11000, 5, "first");
    EXPECT_EQ(nextLine(), priority(6) + "first");
    endDaemon();
    m_log = listenForLines();
    const std::string text = "text";
    const std::vector<SlogEntry> entries(3, {5, text.data(), text.size()});
    slogLines(11000, entries.data(), entries.size());
    EXPECT_EQ(allLines(), std::vector<std::string>(3, priority(6) + "text"));
}

TEST_F(Slog, DaemonStartedAnewAgainAndAgainGetsTheNextLines) {
    const std::vector<SlogEntry> entries(3, {5, "text", 4});
    slogLines(11000, entries.data(), entries.size());
    EXPECT_EQ(allLines(), std::vector<std::string>(3, priority(6) + "text"));
    for (int i = 0; i < 3; ++i) {
        endDaemon();
        m_log = listenForLines();
        slogLines(11000, entries.data(), entries.size());
        EXPECT_EQ(allLines(), std::vector<std::string>(3, priority(6) + "text"))
            << "behind restart " << i;
    }
}

TEST_F(Slog, DaemonThatDoesNotReadLosesLinesNeverTime) {
    constexpr int kLines = 10000;
    const auto start = Clock::now();
    for (int i = 0; i < kLines; ++i) {
        slogf(11000, 3, "line %d", i);
    }
    EXPECT_LT(secondsSince(start), 1.0);
    const int arrived = static_cast<int>(allLines().size());
    EXPECT_GT(arrived, 0);
    EXPECT_LT(arrived, kLines) << "the socket took them all";
    slogf(11000, 5, "next");
    EXPECT_EQ(nextLine(), priority(4) + std::to_string(kLines - arrived) + " lines lost");
    EXPECT_EQ(nextLine(), priority(6) + "next");
    slogf(11000, 5, "and the next");
    EXPECT_EQ(nextLine(), priority(6) + "and the next") << "told once";
}

TEST_F(Slog, LineLostBehindTheReportIsInTheNextReport) {
    int sent = 0;
    const auto fill = [&sent] {
        for (int i = 0; i < 2000; ++i, ++sent) {
            slogf(11000, 5, "line");
        }
    };
    fill();
    // Room for the report alone.
    ASSERT_EQ(nextLine(), priority(6) + "line");
    int arrived = 1;
    slogf(11000, 5, "line");
    ++sent;
    int lost = 0;
    const auto take = [&] {
        for (const std::string& line : allLines()) {
            const int count = lostLines(line);
            lost += count == -1 ? 0 : count;
            arrived += count == -1 ? 1 : 0;
        }
    };
    take();
    EXPECT_GT(lost, 0) << "no report had room";
    EXPECT_EQ(arrived + lost, sent - 1) << "all but the one behind the report";
    slogf(11000, 5, "line");
    ++sent;
    take();
    EXPECT_EQ(arrived + lost, sent);
}

TEST_F(Slog, DaemonStartedAnewGetsTheNextLine) {
    slogf(11000, 5, "first");
    EXPECT_EQ(nextLine(), priority(6) + "first");
    for (int i = 0; i < 3; ++i) {
        endDaemon();
        m_log = listenForLines();
        slogf(11000, 5, "behind restart %d", i);
        EXPECT_EQ(nextLine(), priority(6) + "behind restart " + std::to_string(i));
    }
}

TEST_F(Slog, DaemonGoneForAWhileIsFoundAgain) {
    slogf(11000, 5, "first");
    endDaemon();
    g_connectCalls = 0;
    g_sendCalls = 0;
    for (int i = 0; i < 1000; ++i) {
        slogf(11000, 5, "lost");
    }
    EXPECT_EQ(g_sendCalls, 1);
    EXPECT_EQ(g_connectCalls, 1);
    m_log = listenForLines();
    int attempts = 0;
    const auto start = Clock::now();
    const bool isFound = waitUntil([&] {
        slogf(11000, 5, "again %d", attempts++);
        return nextLine() == priority(4) + std::to_string(999 + attempts) + " lines lost";
    });
    EXPECT_TRUE(isFound);
    EXPECT_LT(secondsSince(start), 2.0);
    EXPECT_EQ(nextLine(), priority(6) + "again " + std::to_string(attempts - 1));
}

TEST_F(Slog, DescriptorIsNoneOfThoseThatAreSelectedOn) {
    slogf(11000, 5, "first");
    const std::vector<int> sockets = openSockets();
    ASSERT_EQ(sockets.size(), 2U);
    EXPECT_EQ(sockets[0], m_log);
    EXPECT_GE(sockets[1], 256);
    EXPECT_EQ(fcntl(sockets[1], F_GETFD), FD_CLOEXEC);
}

TEST_F(Slog, DescriptorIsNoStandardStreamWhereThereAreFewNumbers) {
    const rlimit limit{64, 64};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    close(STDIN_FILENO);
    slogf(11000, 5, "first");
    EXPECT_EQ(nextLine(), priority(6) + "first");
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    const std::vector<int> sockets = openSockets();
    EXPECT_EQ(sockets.size(), 2U);
    for (const int descriptor : sockets) {
        EXPECT_GT(descriptor, STDERR_FILENO);
    }
    dup2(input, STDIN_FILENO);
}

TEST_F(Slog, ClosedDescriptorIsReplaced) {
    slogf(11000, 5, "first");
    EXPECT_EQ(nextLine(), priority(6) + "first");
    close(openSockets().back());
    slogf(11000, 5, "second");
    EXPECT_EQ(nextLine(), priority(6) + "second");
}

TEST_F(Slog, ForkedChildLogsUnderItsOwnProcessId) {
    slogf(11000, 5, "parent");
    nextLine();
    const pid_t child = fork();
    if (child == 0) {
        slogf(11000, 5, "child");
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    EXPECT_THAT(nextDatagram(),
                ::testing::EndsWith(" quilagent[" + std::to_string(child) + "]: child"));
    slogf(11000, 5, "parent");
    EXPECT_THAT(nextDatagram(),
                ::testing::EndsWith(" quilagent[" + std::to_string(getpid()) + "]: parent"));
}

TEST_F(Slog, ChildOfAProcessWhoseThreadsLogCanLog) {
    std::atomic<bool> isDone = false;
    std::thread other([&] {
        while (!isDone) {
            slogf(11000, 5, "other");
        }
    });
    for (int i = 0; i < 50; ++i) {
        endDaemon();  // so that the other thread connects, under its lock
        m_log = listenForLines();
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            slogf(11000, 5, "child");
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        ASSERT_EQ(status, 0) << "a child hung";
    }
    isDone = true;
    other.join();
}

TEST_F(Slog, ChangeOfTheTimeZoneIsFollowed) {
    const auto hourOfALine = [this] {
        slogf(11000, 5, "text");
        const std::string line = nextDatagram();
        return std::atoi(line.substr(line.find(':') - 2, 2).c_str());
    };
    setenv("TZ", "AAA0", 1);
    const std::time_t time = std::time(nullptr);
    const int hour = hourOfALine();
    std::tm universal{};
    gmtime_r(&time, &universal);
    EXPECT_THAT(hour, ::testing::AnyOf(universal.tm_hour, (universal.tm_hour + 1) % 24));
    setenv("TZ", "BBB-5", 1);
    EXPECT_TRUE(waitUntil(
        [&] {
            const int shifted = hourOfALine();
            return shifted == (hour + 5) % 24 || shifted == (hour + 6) % 24;
        },
        3));
}

// The daemon reads all the time, but two threads may well be faster.
TEST_F(Slog, LinesOfAThreadKeepTheirOrderBesideAnother) {
    constexpr int kLines = 5000;
    const auto log = [](char name) {
        for (int i = 0; i < kLines; ++i) {
            slogf(11000, 5, "%c %d", name, i);
        }
    };
    std::atomic<int> writers = 2;
    const auto start = [&](char name) {
        return std::thread([&log, &writers, name] {
            log(name);
            --writers;
        });
    };
    std::thread first = start('a');
    std::thread second = start('b');
    int last[2] = {-1, -1};
    int arrived = 0;
    int lost = 0;
    for (;;) {
        const bool isLastRound = writers == 0;
        const std::string line = nextLine(10);
        const int count = lostLines(line);
        char name = '\0';
        int number = -1;
        if (count != -1) {
            lost += count;
        } else if (std::sscanf(line.c_str(), "<30>%c %d", &name, &number) == 2) {
            int& before = last[name == 'a' ? 0 : 1];
            EXPECT_GT(number, before) << "of " << name;
            before = number;
            ++arrived;
        } else if (isLastRound) {
            break;
        }
    }
    first.join();
    second.join();
    slogf(11000, 5, "end");
    for (const std::string& line : allLines()) {
        lost += std::max(lostLines(line), 0);
    }
    EXPECT_GT(arrived, 0);
    EXPECT_EQ(arrived + lost, 2 * kLines);
}

TEST(SlogWithoutSocket, LosesNothingButTheLog) {
    if (!hideDev()) {
        GTEST_SKIP() << "no mount namespace to be had: " << std::strerror(errno);
    }
    slogf(11000, 5, "first");
    const int before = countDescriptors();
    for (int i = 0; i < 1000; ++i) {
        slogf(11000, 5, "line %d", i);
    }
    EXPECT_EQ(countDescriptors(), before);
}

TEST(SlogWithoutSocket, TriesOnceASecond) {
    if (!hideDev()) {
        GTEST_SKIP() << "no mount namespace to be had: " << std::strerror(errno);
    }
    g_socketCalls = 0;
    const auto start = Clock::now();
    for (int i = 0; i < 10000; ++i) {
        slogf(11000, 2, "line %d", i);
    }
    EXPECT_GE(g_connectCalls, 1);
    EXPECT_LE(g_connectCalls, 1 + static_cast<int>(secondsSince(start)));
    EXPECT_EQ(g_socketCalls, g_connectCalls);
    EXPECT_EQ(g_sendCalls, 0);
}

TEST(SlogWithoutSocket, SocketThatAppearsIsFoundWithinTwoSeconds) {
    if (!hideDev()) {
        GTEST_SKIP() << "no mount namespace to be had: " << std::strerror(errno);
    }
    for (int i = 0; i < 100; ++i) {
        slogf(11000, 5, "lost");
    }
    const int log = listenForLines();
    char buffer[256];
    ssize_t length = -1;
    int lost = 99;
    const auto start = Clock::now();
    EXPECT_TRUE(waitUntil([&] {
        ++lost;
        slogf(11000, 5, "found");
        length = recv(log, buffer, sizeof buffer, MSG_DONTWAIT);
        return length > 0;
    }));
    EXPECT_LT(secondsSince(start), 2.0);
    EXPECT_THAT(std::string(buffer, static_cast<std::size_t>(std::max<ssize_t>(length, 0))),
                ::testing::EndsWith("]: " + std::to_string(lost) + " lines lost"));
    length = recv(log, buffer, sizeof buffer, MSG_DONTWAIT);
    EXPECT_THAT(std::string(buffer, static_cast<std::size_t>(std::max<ssize_t>(length, 0))),
                ::testing::EndsWith("]: found"));
}
