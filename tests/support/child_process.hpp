// A program of this build that a test starts, with its output in a file.

#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

class ChildProcess {
  public:
    // Standard output and standard error are appended to `logPath`.
    explicit ChildProcess(std::string logPath) : m_logPath(std::move(logPath)) {}
    // Ends the process with SIGKILL if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts a program with arguments; the first word is its path. The environment is the test's,
    // without proxy settings. False when there is no process to be had.
    bool start(const std::vector<std::string>& words);
    // Sends a signal to the process.
    void signal(int number) const;
    // Waits for its end. The exit status, or 128 + the signal that ended it; -1 when it does not
    // end in time.
    int wait(double seconds = 20);
    bool isRunning();

    pid_t pid() const { return m_pid; }
    // All it printed since the first start.
    std::string output() const;
    // Waits until the output holds `text` at or behind `from`. False when it does not come in time,
    // or when the process ended without it.
    bool waitForOutput(std::string_view text, std::size_t from = 0, double seconds = 20);

  private:
    bool reap(bool isBlocking);

    std::string m_logPath;
    pid_t m_pid = -1;
    int m_status = -1;
};
