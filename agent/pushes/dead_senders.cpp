// Nobody watches these connections: the kernel is asked about each of them when there is an
// occasion.

#include "agent/pushes/dead_senders.hpp"

#include <atomic>
#include <chrono>

#include "agent/pushes/parked_pushes.hpp"
#include "agent/sessions/session_manager.hpp"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPauseBetweenLooks{1};

std::atomic<Clock::rep> g_nextLook{Clock::time_point::min().time_since_epoch().count()};

}  // namespace

int letGoOfDeadSenders() {
    ParkedPushes* parked = ParkedPushes::getInstance();
    return QuilSessionManager::getInstance()->letGoOfDeadPushSockets() +
           (parked == nullptr ? 0 : parked->letGoOfDead());
}

void lookForDeadSenders() {
    const Clock::time_point now = Clock::now();
    Clock::rep due = g_nextLook;
    if (now.time_since_epoch().count() >= due &&
        g_nextLook.compare_exchange_strong(due,
                                           (now + kPauseBetweenLooks).time_since_epoch().count())) {
        letGoOfDeadSenders();
    }
}
