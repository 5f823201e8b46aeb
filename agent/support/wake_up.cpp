// The byte carries no meaning; it only ends the wait. Each byte is taken by a pass of its own.

#include "agent/support/wake_up.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>

#include "agent/support/log.hpp"

namespace {

int g_readEnd = -1;  // main thread only
// 0 until the loop has made its pipe: a wake-up before that goes to standard input, which is
// harmless, and nothing is lost by it since the first pass looks at all ports anyway.
std::atomic<int> g_writeEnd{0};

}  // namespace

int openWakeUp() {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        ends[0] = ends[1] = -1;  // which is what the caller looks at
    }
    g_readEnd = ends[0];
    g_writeEnd = ends[1];
    return g_readEnd;
}

void takeWakeUp() {
    char byte = 0;
    // Non-blocking: after a failed wait there may be none.
    static_cast<void>(!read(g_readEnd, &byte, 1));
}

void wakeMainLoop() {
    const char byte = 'a';
    if (write(g_writeEnd, &byte, 1) != 1) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "Failed to write pipe!!\n");
    }
}
