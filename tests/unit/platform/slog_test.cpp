// The system log against a real log socket: each test puts a /dev of its own in a private mount
// namespace, listens on /dev/log and reads what syslog(3) sends.

#include "platform/slog/slog.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

namespace {

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

class Slog : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!hideDev()) {
            GTEST_SKIP() << "no mount namespace to be had: " << std::strerror(errno);
        }
        m_log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        ASSERT_EQ(bind(m_log, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    // The priority and the text of the next line, without the time stamp: "<27>quilagent[...]:
    // text".
    std::string nextLine() {
        char buffer[8192];
        const ssize_t length = recv(m_log, buffer, sizeof buffer, MSG_DONTWAIT);
        if (length < 0) {
            return "(nothing)";
        }
        const std::string line(buffer, static_cast<std::size_t>(length));
        const std::size_t ident = line.find("quilagent[");
        const std::size_t text = line.find("]: ", ident);
        if (ident == std::string::npos || text == std::string::npos) {
            return "(without ident) " + line;
        }
        return line.substr(0, line.find('>') + 1) + line.substr(text + 3);
    }

    int m_log = -1;
};

constexpr int kDaemon = 3 << 3;

std::string priority(int level) {
    return "<" + std::to_string(kDaemon | level) + ">";
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
