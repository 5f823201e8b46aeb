// To be preloaded into a program: makes its disk slow. Every sync takes QUIL_SYNC_MILLISECONDS.

#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace {

void wait() {
    static const long kMilliseconds = [] {
        const char* text = std::getenv("QUIL_SYNC_MILLISECONDS");
        return text == nullptr ? 0L : std::atol(text);
    }();
    const timespec time{kMilliseconds / 1000, kMilliseconds % 1000 * 1000000};
    nanosleep(&time, nullptr);
}

int syncAs(const char* name, int descriptor) {
    wait();
    return reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, name))(descriptor);
}

}  // namespace

extern "C" {

int fsync(int descriptor) {
    return syncAs("fsync", descriptor);
}

int fdatasync(int descriptor) {
    return syncAs("fdatasync", descriptor);
}

}  // extern "C"
