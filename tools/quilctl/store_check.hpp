// Whether the object service can still write to its disk.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>

struct StoreFacts {
    bool isKnown = false;          // what follows was found out
    std::uint64_t freeBytes = 0;   // on the disk below the store
    std::uint64_t totalBytes = 0;  // 0 where the disk does not tell
    bool isTried = false;          // an object was written; else this user may not
    bool isSlow = false;           // that took longer than the limit
    std::string problem;           // why it could not be written, in words
};

// Writes an object of its own, /pps/.quilctl-check, and removes it.
StoreFacts checkStore(std::chrono::milliseconds limit);
