#include "agent/sessions/port_changes.hpp"

#include <atomic>

namespace {

std::atomic<unsigned long> g_changes{0};

}  // namespace

unsigned long countPortChanges() {
    return g_changes;
}

void notePortChange() {
    ++g_changes;
}

QuilMutex& portSocketLock() {
    static auto* const lock = new QuilMutex();
    return *lock;
}
