// A thread's end of the process is a signal that no other thread can put off, so it also ends waits
// that a handler would only be called behind.

#include "tools/common/time_limit.hpp"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "tools/common/exit_status.hpp"

void limitTime(double seconds, const char* program, const char* words) {
    std::thread([=] {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        std::fprintf(stderr, "%s: %s\n", program, words);
        _exit(kTimeout);
    }).detach();
}
