// Another user than the one who runs the tests: a child of the test that becomes it. Takes root.

#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

inline constexpr uid_t kOther = 65534;
inline constexpr uid_t kThird = 65533;

// Never returns: becomes `user`, and ends with what `action` gives, which must fit an exit status.
[[noreturn]] inline void becomeAndRun(uid_t user, const std::function<int()>& action) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0) {
        _exit(255);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // which changing the user undid
    _exit(action());
}

// Starts `action` as that user; the child's process id.
inline pid_t startAs(uid_t user, const std::function<int()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        becomeAndRun(user, action);
    }
    return child;
}

// Runs `action` as another user and gives its result.
inline int asOther(const std::function<int()>& action, uid_t user = kOther) {
    int status = 0;
    waitpid(startAs(user, action), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#define QUIL_SKIP_UNLESS_ROOT()                                              \
    do {                                                                     \
        if (geteuid() != 0) {                                                \
            GTEST_SKIP() << "NOT TESTED: only root can act as another user"; \
        }                                                                    \
    } while (false)
