#include "tools/quilctl/live_log.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t kMostAtOnce = 1024 * 1024;
constexpr int kNoSuchCommand = 127;

// One read. What was read, 0 at the end, -1 with errno.
ssize_t readSome(int descriptor, std::string& bytes) {
    char buffer[65536];
    ssize_t count = 0;
    do {
        count = ::read(descriptor, buffer, sizeof buffer);
    } while (count < 0 && errno == EINTR);
    if (count > 0) {
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    return count;
}

// The child's side. The signals as a command is used to have them.
[[noreturn]] void runJournalctl(int output, bool fromStart, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    signal(SIGPIPE, SIG_DFL);
    if (getppid() != parent || dup2(output, STDOUT_FILENO) < 0) {
        _exit(1);
    }
    execlp("journalctl", "journalctl", "-u", "quilagent", "-f", "-n", fromStart ? "all" : "0", "-o",
           "short-iso-precise", static_cast<char*>(nullptr));
    std::fprintf(stderr, "quilctl: cannot run journalctl: %s\n", std::strerror(errno));
    _exit(kNoSuchCommand);
}

}  // namespace

FollowedFile::~FollowedFile() {
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

int FollowedFile::open(bool fromStart) {
    m_descriptor = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (m_descriptor < 0 || fstat(m_descriptor, &status) != 0) {
        return errno;
    }
    if (S_ISDIR(status.st_mode)) {
        return EISDIR;
    }
    if (!fromStart) {
        lseek(m_descriptor, 0, SEEK_END);
    }
    return 0;
}

LiveLog::State FollowedFile::read(std::string& bytes) {
    while (bytes.size() < kMostAtOnce) {
        const ssize_t count = readSome(m_descriptor, bytes);
        if (count < 0) {
            return State::Failed;
        }
        if (count == 0 && !takeUpNext()) {
            return State::Going;
        }
    }
    return State::Going;
}

// At the end of what there is: whether there is more, in a file that was cut short or in the one
// that has the name now.
bool FollowedFile::takeUpNext() {
    struct stat own {};
    struct stat named {};
    if (fstat(m_descriptor, &own) != 0 || stat(m_path.c_str(), &named) != 0) {
        return false;  // renamed, and nothing in its place yet
    }
    if (own.st_dev == named.st_dev && own.st_ino == named.st_ino) {
        return own.st_size < lseek(m_descriptor, 0, SEEK_CUR) &&
               lseek(m_descriptor, 0, SEEK_SET) == 0;
    }
    if (own.st_size > lseek(m_descriptor, 0, SEEK_CUR)) {
        return true;  // written just before it was let go
    }
    const int next = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (next < 0) {
        return false;
    }
    close(m_descriptor);
    m_descriptor = next;
    return true;
}

LiveLog::State PipedLog::read(std::string& bytes) {
    const ssize_t count = readSome(STDIN_FILENO, bytes);
    return count > 0 ? State::Going : count == 0 ? State::Ended : State::Failed;
}

bool JournalLog::start(bool fromStart) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    const pid_t parent = getpid();
    m_child = fork();
    if (m_child == 0) {
        runJournalctl(ends[1], fromStart, parent);
    }
    close(ends[1]);
    m_descriptor = ends[0];
    return m_child > 0;
}

JournalLog::~JournalLog() {
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
    if (m_child > 0) {
        kill(m_child, SIGTERM);
        waitpid(m_child, nullptr, 0);
    }
}

LiveLog::State JournalLog::read(std::string& bytes) {
    return readSome(m_descriptor, bytes) > 0 ? State::Going : State::Failed;
}
