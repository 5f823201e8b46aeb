// What the tests share in which one user attacks the object service and another is watched. The
// attacker and the innocent are children that become those users.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/other_user.hpp"
#include "tests/integration/pps_files.hpp"
#include "tests/support/ppsd_mount.hpp"

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

inline constexpr int kCreate = O_RDWR | O_CREAT;
inline constexpr std::size_t kMebibyte = 1024 * 1024;
inline constexpr uid_t kAttacker = kOther;
inline constexpr uid_t kInnocent = kThird;

// Instrumented programs take their own memory and time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsInstrumented = true;
#else
inline constexpr bool kIsInstrumented = false;
#endif

inline std::string line(std::size_t size) {
    return "a::" + std::string(size - 4, 'x') + "\n";
}

// A hundred thousand attributes, as many as an object has room for.
inline void fill(PpsFile& object) {
    for (int n = 0; n < 96000;) {
        std::string lines;
        for (int last = n + 6000; n < last; ++n) {
            lines += "k" + std::to_string(n) + "::\n";
        }
        object.write(lines);
    }
}

// A served object that echoes, and a child that is its server until it is ended.
class PpsdAttack : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
        QUIL_SKIP_UNLESS_ROOT();
        ASSERT_EQ(pipe2(m_begun, O_CLOEXEC), 0);
    }
    void TearDown() override {
        for (const pid_t child : m_children) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    void startService(const std::vector<std::string>& arguments = {}) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        ASSERT_TRUE(m_ppsd.start(arguments)) << m_ppsd.output();
        ASSERT_EQ(chmod(path("").c_str(), 0755), 0);
        for (const uid_t user : {kAttacker, kInnocent}) {
            const std::string folder = path("/" + std::to_string(user));
            ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
            ASSERT_EQ(chown(folder.c_str(), user, user), 0);
        }
    }
    // A server that takes so long over each message, and sends requests back as they came.
    void startEcho(std::chrono::microseconds work = {}) {
        m_server = PpsFile(path("/ipc?server"), kCreate);
        ASSERT_EQ(m_server.error(), 0);
        ASSERT_EQ(chmod(path("/ipc").c_str(), 0666), 0);
        start(0, [this, work] { return echo(work); });
    }
    int echo(std::chrono::microseconds work) {
        pollfd source{m_server.fd(), POLLIN, 0};
        for (;;) {
            poll(&source, 1, -1);
            const std::string message = m_server.read();
            std::this_thread::sleep_for(work);
            if (message.starts_with("@")) {
                m_server.write(message);
            }
        }
    }
    void start(uid_t user, const std::function<int()>& action) {
        m_children.push_back(startAs(user, action));
    }

    // An attacker says once that it is at work; nothing is measured before all have.
    void tellBegun() const { static_cast<void>(!write(m_begun[1], "y", 1)); }
    void awaitBegun(int attackers) const {
        for (int i = 0; i < attackers; ++i) {
            pollfd source{m_begun[0], POLLIN, 0};
            char byte = 0;
            ASSERT_EQ(poll(&source, 1, 60000), 1) << i << " of " << attackers << " are at work";
            ASSERT_EQ(read(m_begun[0], &byte, 1), 1);
        }
    }

    std::string path(const std::string& name) const { return m_ppsd.path(name); }
    std::string own(uid_t user, const std::string& name) const {
        return path("/" + std::to_string(user) + name);
    }

    // What half of so many requests of the innocent, 10 ms apart, took at the most, in
    // milliseconds; 250 for more than that or for none at all. Half, as a busy machine may delay
    // any of them.
    int typicalRequest(std::size_t requests = 100) const {
        return asOther(
            [&] {
                const PpsFile client(path("/ipc"), O_RDWR);
                std::vector<double> waits;
                while (waits.size() < requests) {
                    const auto begin = Clock::now();
                    const std::string request = "ask::" + std::to_string(waits.size()) + "\n";
                    pollfd source{client.fd(), POLLIN, 0};
                    if (client.write(request) != 0 || poll(&source, 1, 20000) != 1 ||
                        !client.read().ends_with(request)) {
                        return 250;
                    }
                    waits.push_back(Milliseconds(Clock::now() - begin).count());
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                }
                std::nth_element(waits.begin(), waits.begin() + 50, waits.end());
                return static_cast<int>(std::min(waits[50], 250.0));
            },
            kInnocent);
    }

    // What the service has in memory now.
    std::size_t residentBytes() const {
        std::ifstream status("/proc/" + std::to_string(m_ppsd.pid()) + "/statm");
        std::size_t pages = 0;
        status >> pages >> pages;
        return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
    PpsFile m_server{"", O_RDWR};
    std::vector<pid_t> m_children;
    int m_begun[2] = {-1, -1};  // closed with the test's process
};
