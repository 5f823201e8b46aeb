#include "agent/support/service_life.hpp"

#include <atomic>

namespace {

std::atomic<int> g_life{1};

}  // namespace

int serviceLife() {
    return g_life;
}

void endServiceLife() {
    ++g_life;
}
