// Waiting for a condition, for lack of anything that tells when it comes true.

#pragma once

#include <chrono>
#include <thread>

// Polls a condition every few milliseconds. False when it does not come true in time.
template <typename Condition>
bool waitUntil(Condition condition, double seconds = 20) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    return true;
}
