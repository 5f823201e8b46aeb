// In a file of its own, so that the compiler does not look through both sides of a pair.

#include "tests/support/agent/failing_new.hpp"

#include <cstdlib>
#include <new>

thread_local bool t_failsNextNew = false;

void* operator new(std::size_t size) {
    if (t_failsNextNew) {
        t_failsNextNew = false;
        throw std::bad_alloc();
    }
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
