// To be preloaded into a program: its allocation number QUIL_FAILING_NEW (from 1) by `new` fails,
// once. Where that names a file instead, by an absolute path, the number is what stands there, as a
// long that both this and whoever watches the program map: each allocation takes 1 off, the one
// that makes it 0 fails, and a new number may be written at any time. Every form of new and delete
// ends in malloc and free.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

using Count = std::atomic<long>;

Count g_own{0};
Count* g_left = &g_own;

__attribute__((constructor)) void readNumber() {
    const char* number = std::getenv("QUIL_FAILING_NEW");
    if (number == nullptr || number[0] != '/') {
        g_own = number == nullptr ? 0 : std::atol(number);
        return;
    }
    const int file = open(number, O_RDWR | O_CLOEXEC);
    void* place = mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (file < 0 || place == MAP_FAILED) {
        abort();
    }
    close(file);
    g_left = static_cast<Count*>(place);
}

void* allocate(std::size_t bytes) {
    if (*g_left > 0 && g_left->fetch_sub(1) == 1) {
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
