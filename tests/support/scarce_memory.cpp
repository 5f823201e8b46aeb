// Every form of new and delete ends in malloc and free, which the sanitizers go on watching.

#include "tests/support/scarce_memory.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t t_failingBytes = 0;
thread_local int t_granted = 0;
thread_local bool t_hasFailed = false;
thread_local bool t_nothrowFails = false;
std::atomic<std::size_t> g_failingBytes{0};
std::atomic<int> g_failuresLeft{0};

bool failsHere(std::size_t bytes) {
    if (t_failingBytes != bytes || t_hasFailed) {
        return false;
    }
    t_hasFailed = t_granted == 0;
    --t_granted;
    return t_hasFailed;
}

bool failsEverywhere(std::size_t bytes) {
    return g_failingBytes == bytes && g_failuresLeft.fetch_sub(1) > 0;
}

}  // namespace

ScarceMemory::ScarceMemory(std::size_t bytes, int granted) {
    t_granted = granted;
    t_hasFailed = false;
    t_failingBytes = bytes;
}

ScarceMemory::~ScarceMemory() {
    t_failingBytes = 0;
}

bool ScarceMemory::hasFailed() const {
    return t_hasFailed;
}

NoNothrowMemory::NoNothrowMemory() {
    t_nothrowFails = true;
}

NoNothrowMemory::~NoNothrowMemory() {
    t_nothrowFails = false;
}

void failAllocationsEverywhere(std::size_t bytes, int count) {
    g_failuresLeft = count;
    g_failingBytes = bytes;
}

void* operator new(std::size_t bytes) {
    if (failsHere(bytes) || failsEverywhere(bytes)) {
        throw std::bad_alloc();
    }
    void* memory = std::malloc(bytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new[](std::size_t bytes) {
    return operator new(bytes);
}

void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
    return t_nothrowFails ? nullptr : std::malloc(bytes);
}

void* operator new[](std::size_t bytes, const std::nothrow_t& tag) noexcept {
    return operator new(bytes, tag);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*bytes*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*bytes*/) noexcept {
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}
