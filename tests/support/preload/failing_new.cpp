// To be preloaded into a program: its allocation number QUIL_FAILING_NEW (from 1) by `new` fails,
// once. Every form of new and delete ends in malloc and free.

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> g_left{-1};

__attribute__((constructor)) void readNumber() {
    const char* number = std::getenv("QUIL_FAILING_NEW");
    g_left = number == nullptr ? -1 : std::atol(number);
}

void* allocate(std::size_t bytes) {
    if (g_left > 0 && g_left.fetch_sub(1) == 1) {
        return nullptr;
    }
    return std::malloc(bytes == 0 ? 1 : bytes);
}

}  // namespace

void* operator new(std::size_t bytes) {
    void* memory = allocate(bytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new[](std::size_t bytes) {
    return operator new(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(bytes);
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
