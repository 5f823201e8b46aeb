#include "tests/support/ppsd_mount.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

namespace {

constexpr std::chrono::seconds kStartDeadline{60};
constexpr std::chrono::milliseconds kStartPoll{5};
constexpr char kLiveLine[] = "ppsd: serving ";

std::string logPath(const ScratchRoot& root) {
    return root.path("/ppsd.log");
}

// Replaces this process by ppsd. Only calls that are safe after a fork.
[[noreturn]] void execute(const char* log, const std::vector<char*>& arguments, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int output = open(log, O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (getppid() != parent || output < 0) {
        _exit(126);
    }
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
}

std::string textOf(const char* variable) {
    const char* text = std::getenv(variable);
    return text == nullptr ? "" : text;
}

void unmountLazily(const std::string& path) {
    if (umount2(path.c_str(), MNT_DETACH) == 0 || errno == EINVAL || errno == ENOENT) {
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        execlp("fusermount3", "fusermount3", "-u", "-q", "-z", "--", path.c_str(), nullptr);
        _exit(127);
    }
    waitpid(child, nullptr, 0);
}

}  // namespace

std::string builtProgram(std::string_view name) {
    const char* folder = std::getenv("QUIL_BIN");
    return std::string(folder == nullptr ? "." : folder) + "/" + std::string(name);
}

PpsdMount::PpsdMount(const ScratchRoot& root) : m_root(root) {
    setenv("QUIL_ROOT", root.path().c_str(), 1);
}

PpsdMount::~PpsdMount() {
    if (m_pid > 0) {
        EXPECT_EQ(stop(), 0) << "ppsd did not end well";
    }
    unmountLazily(path());
    if (::testing::Test::HasFailure()) {
        std::fprintf(stderr, "---- output of ppsd\n%s----\n", output().c_str());
    }
}

std::string PpsdMount::unavailableReason() {
    if (access(builtProgram("ppsd").c_str(), X_OK) != 0) {
        return builtProgram("ppsd") + ": " + std::strerror(errno) + " (is QUIL_BIN set?)";
    }
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (device < 0) {
        return std::string("/dev/fuse: ") + std::strerror(errno);
    }
    close(device);
    if (geteuid() != 0 && std::system("command -v fusermount3 >/dev/null") != 0) {
        return "fusermount3 is not installed";
    }
    return "";
}

std::string PpsdMount::path(std::string_view name) const {
    return m_root.path("/pps") + std::string(name);
}

std::string PpsdMount::output() const {
    std::ifstream log(logPath(m_root));
    return {std::istreambuf_iterator<char>(log), {}};
}

bool PpsdMount::start(const std::vector<std::string>& arguments) {
    std::vector<std::string> words{builtProgram("ppsd")};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const std::string log = logPath(m_root);
    const std::size_t outputBefore = output().size();
    const pid_t parent = getpid();
    const std::string sanitizer = textOf("ASAN_OPTIONS");
    if (!m_preloaded.empty()) {
        const std::string library = builtProgram("../lib/quil_preload_" + m_preloaded + ".so");
        setenv("LD_PRELOAD", library.c_str(), 1);
        setenv("ASAN_OPTIONS", (sanitizer + ":verify_asan_link_order=0").c_str(), 1);
    }
    m_pid = fork();
    if (m_pid == 0) {
        execute(log.c_str(), pointers, parent);
    }
    if (!m_preloaded.empty()) {
        unsetenv("LD_PRELOAD");
        setenv("ASAN_OPTIONS", sanitizer.c_str(), 1);
    }
    return m_pid > 0 && waitUntilLive(outputBefore);
}

bool PpsdMount::waitUntilLive(std::size_t outputBefore) {
    const auto deadline = std::chrono::steady_clock::now() + kStartDeadline;
    while (std::chrono::steady_clock::now() < deadline) {
        if (output().find(kLiveLine, outputBefore) != std::string::npos) {
            return true;
        }
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
            m_pid = -1;
            return false;
        }
        std::this_thread::sleep_for(kStartPoll);
    }
    kill();
    return false;
}

int PpsdMount::waitForEnd() {
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int PpsdMount::stop(int signal) {
    ::kill(m_pid, signal);
    return waitForEnd();
}

void PpsdMount::kill() {
    ::kill(m_pid, SIGKILL);
    waitForEnd();
}

bool PpsdMount::restart() {
    return stop() == 0 && start();
}
