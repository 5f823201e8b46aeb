// A program of this build, run as people run it: arguments, input, output, exit status.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ppsd_mount.hpp"

class ToolProcess {
  public:
    // Starts `program`, of this build or with its path, with QUIL_ROOT set to `root`. Fails the
    // test when it cannot.
    ToolProcess(const std::string& root, const std::string& program,
                const std::vector<std::string>& arguments) {
        int in[2];
        int out[2];
        int err[2];
        EXPECT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC) | pipe2(err, O_CLOEXEC), 0);
        const std::string path =
            program.find('/') == std::string::npos ? builtProgram(program) : program;
        std::vector<std::string> words = {program};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        setenv("QUIL_ROOT", root.c_str(), 1);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        EXPECT_EQ(posix_spawn(&m_pid, path.c_str(), &actions, nullptr, argv.data(), environ), 0)
            << path;
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        close(err[1]);
        m_in = in[1];
        m_out = out[0];
        m_err = err[0];
    }

    ~ToolProcess() {
        closeInput();
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_out);
        close(m_err);
    }
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    void type(const std::string& text) {
        EXPECT_EQ(write(m_in, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    void signal(int number) const { kill(m_pid, number); }

    void closeInput() {
        if (m_in >= 0) {
            close(m_in);
        }
        m_in = -1;
    }

    void closeOutput() {
        close(m_out);
        m_out = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }

    // Waits until the output (or with `isError` standard error) holds `text`; false after a while.
    bool waitFor(const std::string& text, bool isError = false,
                 std::chrono::milliseconds time = std::chrono::seconds(20)) {
        const auto deadline = std::chrono::steady_clock::now() + time;
        while ((isError ? error : output).find(text) == std::string::npos) {
            if (!collect() || std::chrono::steady_clock::now() > deadline) {
                return (isError ? error : output).find(text) != std::string::npos;
            }
        }
        return true;
    }

    // Waits for the end. The exit status, 128 + signal, or -1 when it does not end.
    int wait() {
        closeInput();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(40);
        while (collect() && std::chrono::steady_clock::now() < deadline) {
        }
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return -1;
    }

    std::string output;  // so far
    std::string error;   // so far, of standard error

  private:
    // Takes in what was written, waiting a little. False once both streams ended.
    bool collect() {
        pollfd entries[2] = {{m_isOutOpen ? m_out : -1, POLLIN, 0},
                             {m_isErrOpen ? m_err : -1, POLLIN, 0}};
        poll(entries, 2, 100);
        if (entries[0].revents != 0) {
            m_isOutOpen = take(m_out, output);
        }
        if (entries[1].revents != 0) {
            m_isErrOpen = take(m_err, error);
        }
        return m_isOutOpen || m_isErrOpen;
    }

    static bool take(int descriptor, std::string& into) {
        char buffer[4096];
        const ssize_t count = read(descriptor, buffer, sizeof buffer);
        if (count > 0) {
            into.append(buffer, static_cast<std::size_t>(count));
        }
        return count > 0;
    }

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    int m_err = -1;
    bool m_isOutOpen = true;
    bool m_isErrOpen = true;
};

// What a run to the end gave.
struct ToolRun {
    int status;
    std::string output;
    std::string error;
};

inline ToolRun runTool(const std::string& root, const std::string& program,
                       const std::vector<std::string>& arguments) {
    ToolProcess process(root, program, arguments);
    const int status = process.wait();
    return {status, process.output, process.error};
}
