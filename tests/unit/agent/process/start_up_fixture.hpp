// The real program, started in a scratch root.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/agent/in_child.hpp"
#include "tests/support/agent/process_fixture.hpp"

// What the child does before it becomes the program.
struct Setting {
    std::vector<int> closed = {};  // descriptors that it shall not have
    rlim_t openFiles = 0;          // soft limit, 0 to leave it
    bool isDevHidden = false;      // an empty /dev
    int output = -1;               // standard output; a file of the test when -1
    bool isOrdinary = false;       // an ordinary user, also when the test is root's
    std::string preloaded = {};    // name of a library of tests/support/preload
};

inline bool hideDev() {
    if (unshare(CLONE_NEWNS) != 0) {
        return false;
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

inline std::string programPath() {
    const char* folder = std::getenv("QUIL_BIN");
    if (folder != nullptr) {
        return std::string(folder) + "/quilagent";
    }
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "quilagent";
}

// The user that this test may run the program as: its own.
inline std::string ownUser() {
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
