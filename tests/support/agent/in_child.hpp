// Running a part of a test in a child process, so that what it does to the process's user ends with
// it.

#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

// What `run` gives in a child of this process, or in words that it came to no end.
inline std::string inChild(const std::function<std::string()>& run) {
    int ends[2];
    if (pipe(ends) != 0) {
        return "no pipe";
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        const std::string text = run();
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t count = write(ends[1], text.data() + done, text.size() - done);
            done += count > 0 ? static_cast<std::size_t>(count) : text.size();
        }
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t count = read(ends[0], buffer, sizeof buffer); count > 0;
         count = read(ends[0], buffer, sizeof buffer)) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? text : "the child crashed";
}

// Makes this process one of an ordinary user, for good. False when it is root's and stays so.
inline bool becomeOrdinaryUser() {
    constexpr uid_t kNobody = 65534;
    return geteuid() != 0 ||
           (setgroups(0, nullptr) == 0 && setresgid(kNobody, kNobody, kNobody) == 0 &&
            setresuid(kNobody, kNobody, kNobody) == 0);
}

// inChild, there as an ordinary user: this one, or nobody when this is root.
inline std::string asOrdinaryUser(const std::function<std::string()>& run) {
    return inChild([&run] { return becomeOrdinaryUser() ? run() : "still root"; });
}
