// Memory that runs out at a chosen place. A test program that compiles scarce_memory.cpp in has its
// `new` replaced; nothing fails until a ScarceMemory says so.

#pragma once

#include <cstddef>

// While it lives, allocations of exactly `bytes` bytes by the same thread fail: the first `granted`
// of them still succeed, the next one throws std::bad_alloc, and later ones succeed again. The
// exact size is what tells one allocation from all others: the copy of a text of 3000 characters
// asks for 3001 bytes. One at a time per thread.
class ScarceMemory {
  public:
    explicit ScarceMemory(std::size_t bytes, int granted = 0);
    ~ScarceMemory();
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;

    // Whether the allocation came that had to fail.
    bool hasFailed() const;
};

// While it lives, every allocation of the same thread that asks for null instead of an exception
// gets null.
class NoNothrowMemory {
  public:
    NoNothrowMemory();
    ~NoNothrowMemory();
    NoNothrowMemory(const NoNothrowMemory&) = delete;
    NoNothrowMemory& operator=(const NoNothrowMemory&) = delete;
};

// Each of the next `count` allocations of exactly that size fails, on whatever thread. For threads
// that the test did not start.
void failAllocationsEverywhere(std::size_t bytes, int count);
