// The text is built once, in a buffer on the caller's stack: no shared state, any thread. That
// buffer is large for a small stack, which is why the room left is measured first.

#include "agent/support/log.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "agent/support/stack_end.hpp"
#include "platform/slog/slog.hpp"

namespace {

constexpr std::uint32_t kSlogCode = 11000;
constexpr int kHighestVerbosity = 7;
constexpr std::size_t kTextBytes = 4096;
constexpr std::size_t kStackBytesNeeded = 4224;  // the text's buffer and a little around it
constexpr std::size_t kEchoBytes = 65536;

// Written before any thread is started, read without a lock afterwards.
int g_verbosity = 5;

bool hasStackForText() {
    static thread_local const std::uintptr_t stackEnd = findStackEnd();
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    return here - stackEnd > kStackBytesNeeded;
}

const char* baseName(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

// In a function of its own, so that its buffer is on the stack only once there is room for it.
__attribute__((noinline, format(printf, 4, 0))) void emit(int level, const char* sourcePath,
                                                          int line, const char* format,
                                                          va_list arguments) {
    char text[kTextBytes];
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
        return;
    }
    if (sourcePath != nullptr) {
        slogf(kSlogCode, level, "%s:%s(%d): %s", "QUIL", baseName(sourcePath), line, text);
        std::printf("%s:%s(%d): %s\n", "QUIL", baseName(sourcePath), line, text);
    } else {
        slogf(kSlogCode, level, "%s: %s", "QUIL", text);
        std::printf("%s: %s\n", "QUIL", text);
    }
}

}  // namespace

bool isLogged(int level) {
    return level <= g_verbosity;
}

void logMessage(int level, const char* sourcePath, int line, const char* format, ...) {
    const int savedErrno = errno;
    if (!isLogged(level)) {
        return;
    }
    if (hasStackForText()) {
        va_list arguments;
        va_start(arguments, format);
        emit(level, sourcePath, line, format, arguments);
        va_end(arguments);
    } else {
        slogf(kSlogCode, LOG_LEVEL_SHORTAGE, "Couldn't allocate stack for error message...");
    }
    errno = savedErrno;
}

void raiseVerbosity(int n) {
    g_verbosity = n > kHighestVerbosity - g_verbosity ? kHighestVerbosity : g_verbosity + n;
}

void bufferLogEcho() {
    static char buffer[kEchoBytes];
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

void flushLogEcho() {
    const int savedErrno = errno;
    std::fflush(stdout);
    errno = savedErrno;
}
