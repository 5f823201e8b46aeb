// A ppsd process of a test's own, with its tree mounted in a scratch folder.
//
//     QUIL_SKIP_WITHOUT_FUSE();
//     ScratchRoot root;
//     PpsdMount ppsd(root);
//     ASSERT_TRUE(ppsd.start());
//     int fd = open(ppsd.path("/services/push/ipc").c_str(), O_RDWR);
//
// The binary is that of the folder named by QUIL_BIN. start() and restart() belong on the test's
// main thread: the process ends with the thread that started it.

#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/scratch_root.hpp"

class PpsdMount {
  public:
    explicit PpsdMount(const ScratchRoot& root);

    // Ends the process and fails the test when it did not end well; prints its output when the test
    // failed; leaves no mount behind.
    ~PpsdMount();
    PpsdMount(const PpsdMount&) = delete;
    PpsdMount& operator=(const PpsdMount&) = delete;

    // Why there can be no mount here, or an empty string.
    static std::string unavailableReason();

    // From the next start on ppsd runs with this library of tests/support/preload.
    void preload(std::string_view name) { m_preloaded = name; }

    // True when the mount is live. Arguments are passed to ppsd.
    bool start(const std::vector<std::string>& arguments = {});

    // Sends `signal` and waits for the end: the exit status, or 128 + the signal that ended it.
    int stop(int signal = SIGTERM);

    // SIGKILL, as a crash: the dead mount stays.
    void kill();

    // stop() and start(); false when one of them failed.
    bool restart();

    pid_t pid() const { return m_pid; }

    // The path of the object "/NAME" of the tree.
    std::string path(std::string_view name = "") const;

    // What ppsd printed since the first start, standard error included.
    std::string output() const;

  private:
    bool waitUntilLive(std::size_t outputBefore);
    int waitForEnd();

    const ScratchRoot& m_root;
    std::string m_preloaded;
    pid_t m_pid = -1;
};

// Path of a program of this build, from QUIL_BIN.
std::string builtProgram(std::string_view name);

#define QUIL_SKIP_WITHOUT_FUSE()                                                  \
    do {                                                                          \
        const std::string quilFuseReason = PpsdMount::unavailableReason();        \
        if (!quilFuseReason.empty()) {                                            \
            GTEST_SKIP() << "NOT TESTED, no FUSE mount here: " << quilFuseReason; \
        }                                                                         \
    } while (false)
