#include "ppsd/fuse/caller.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

namespace {

// A signal that is none, to a thread of a process: only whether there is one is told.
bool isFirstThread(pid_t thread) {
    return syscall(SYS_tgkill, thread, thread, 0) == 0 || errno != ESRCH;
}

}  // namespace

// Most requests come from the first thread, whose number is the process's: one cheap call tells.
pid_t processOf(pid_t thread) {
    if (thread <= 0 || isFirstThread(thread)) {
        return thread;
    }
    std::ifstream status("/proc/" + std::to_string(thread) + "/status");
    std::string key;
    for (pid_t process = 0; status >> key; status.ignore(4096, '\n')) {
        if (key == "Tgid:" && status >> process) {
            return process;
        }
    }
    return thread;
}
