// Nobody watches these connections: the kernel is asked about each of them when there is an
// occasion.

#include "agent/pushes/dead_senders.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>

#include "agent/pushes/parked_pushes.hpp"
#include "agent/sessions/session_manager.hpp"

namespace {

using Clock = std::chrono::steady_clock;

// A look asks the kernel once for each connection: it may take a hundredth of the time, but comes
// at least once a second.
constexpr Clock::duration kShortestPause = std::chrono::milliseconds(50);
constexpr Clock::duration kLongestPause = std::chrono::seconds(1);
constexpr int kPausePerLook = 100;

Clock::rep after(Clock::duration pause) {
    return (Clock::now() + pause).time_since_epoch().count();
}

std::atomic<Clock::rep> g_nextLook{Clock::time_point::min().time_since_epoch().count()};

}  // namespace

int letGoOfDeadSenders() {
    ParkedPushes* parked = ParkedPushes::getInstance();
    return QuilSessionManager::getInstance()->letGoOfDeadPushSockets() +
           (parked == nullptr ? 0 : parked->letGoOfDead());
}

void lookForDeadSenders() {
    const Clock::time_point begin = Clock::now();
    Clock::rep due = g_nextLook;
    if (begin.time_since_epoch().count() >= due &&
        g_nextLook.compare_exchange_strong(due, after(kLongestPause))) {
        letGoOfDeadSenders();
        const Clock::duration taken = Clock::now() - begin;
        g_nextLook = after(std::clamp(taken * kPausePerLook, kShortestPause, kLongestPause));
    }
}
