// fork and exec; between the two only calls that are safe after a fork.

#include "tests/support/child_process.hpp"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "tests/support/wait_until.hpp"

namespace {

[[noreturn]] void execute(const char* log, const std::vector<char*>& words, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int output = open(log, O_WRONLY | O_CREAT | O_APPEND, 0666);
    const int input = open("/dev/null", O_RDONLY);
    if (getppid() != parent || output < 0 || input < 0) {
        _exit(126);
    }
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    for (int inherited = 3; inherited < 64; ++inherited) {
        close(inherited);
    }
    execv(words[0], words.data());
    _exit(127);
}

}  // namespace

ChildProcess::~ChildProcess() {
    if (isRunning()) {
        signal(SIGKILL);
        reap(true);
    }
}

bool ChildProcess::start(const std::vector<std::string>& words) {
    for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "all_proxy",
                             "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
        unsetenv(name);
    }
    std::vector<std::string> copies = words;
    std::vector<char*> pointers;
    for (std::string& word : copies) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const pid_t parent = getpid();
    m_status = -1;
    m_pid = fork();
    if (m_pid == 0) {
        execute(m_logPath.c_str(), pointers, parent);
    }
    return m_pid > 0;
}

void ChildProcess::signal(int number) const {
    if (m_pid > 0) {
        ::kill(m_pid, number);
    }
}

bool ChildProcess::reap(bool isBlocking) {
    if (m_pid <= 0) {
        return true;
    }
    int status = 0;
    if (waitpid(m_pid, &status, isBlocking ? 0 : WNOHANG) != m_pid) {
        return false;
    }
    m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    m_pid = -1;
    return true;
}

int ChildProcess::wait(double seconds) {
    return waitUntil([this] { return reap(false); }, seconds) ? m_status : -1;
}

bool ChildProcess::isRunning() {
    return !reap(false);
}

std::string ChildProcess::output() const {
    std::ifstream log(m_logPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(log), {}};
}

bool ChildProcess::waitForOutput(std::string_view text, std::size_t from, double seconds) {
    const auto isThere = [&] { return output().find(text, from) != std::string::npos; };
    waitUntil([&] { return isThere() || !isRunning(); }, seconds);
    return isThere();
}
