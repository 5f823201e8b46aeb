// A line is formatted once, into memory of its thread, and takes no lock that another thread needs.
// Standard output and the system log get what has come together when the thread is about to wait:
// one call each, after the work is done. Only failures go to the system log at once.
//
// The memory is one of a fixed number of buffers, which a thread holds from its first line until
// its lines are written out. Nobody but its holder appends to it; the lock of each is there for the
// end of the process, which writes out what all threads have.

#include "agent/support/log.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "agent/support/locks.hpp"
#include "agent/support/log_lines.hpp"
#include "agent/support/stack_end.hpp"
#include "platform/slog/slog.hpp"

namespace {

constexpr std::uint32_t kSlogCode = 11000;
constexpr int kHighestVerbosity = 7;
constexpr std::size_t kTextBytes = 4096;  // with its NUL
constexpr std::size_t kStackBytesNeeded = 4224;
constexpr std::size_t kPlaceBytes = 256;  // "QUIL:file.cpp(LINE): "
constexpr std::size_t kLineBytes = kPlaceBytes + kTextBytes;

// Written before any thread is started, read without a lock afterwards.
int g_verbosity = 5;
bool g_isBuffered = false;

bool hasStackForText() {
    static thread_local const std::uintptr_t stackEnd = findStackEnd();
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    return here - stackEnd > kStackBytesNeeded;
}

std::size_t writePlace(char* line, const char* sourcePath, int number) {
    std::string_view name;
    if (sourcePath != nullptr) {
        const char* slash = std::strrchr(sourcePath, '/');
        name = slash == nullptr ? sourcePath : slash + 1;
        name = name.substr(0, kPlaceBytes - 32);
    }
    char* at = std::copy_n("QUIL:", 5, line);
    if (sourcePath == nullptr) {
        *at++ = ' ';
    } else {
        at = std::copy(name.begin(), name.end(), at);
        *at++ = '(';
        at = std::to_chars(at, at + 16, number).ptr;
        at = std::copy_n("): ", 3, at);
    }
    return static_cast<std::size_t>(at - line);
}

// Writes the line without its line feed. Gives its length, 0 for one that cannot be formatted.
std::size_t format(char* line, const char* sourcePath, int number, const char* format,
                   va_list arguments) {
    const std::size_t place = writePlace(line, sourcePath, number);
    const int wanted = std::vsnprintf(line + place, kTextBytes, format, arguments);
    return wanted < 0 ? 0 : place + std::min(static_cast<std::size_t>(wanted), kTextBytes - 1);
}

void writeOut(const char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(STDOUT_FILENO, bytes, size);
        if (written > 0) {
            bytes += written;
            size -= static_cast<std::size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            return;  // nobody takes it
        }
    }
}

// The lines of one thread that have not been written out.
class Buffer {
  public:
    // For the thread that holds it, and at the end for anybody.
    void append(int level, const char* sourcePath, int number, const char* text, va_list arguments)
        __attribute__((format(printf, 5, 0))) {
        const QuilLock lock(m_lock);
        if (!hasRoomFor(kLineBytes + 1, 1)) {
            flushLocked();
        }
        char* line = m_bytes.data() + m_used;
        const std::size_t length = format(line, sourcePath, number, text, arguments);
        if (length == 0) {
            return;
        }
        if (LogLines* lines = LogLines::recording()) {
            lines->add(level, {line, length});
        }
        line[length] = '\n';
        m_lines[m_count++] = {level, line, length};
        m_used += length + 1;
        if (level <= LOG_LEVEL_WARNING) {
            handOver();
        }
    }
    // False when there are more than fit.
    bool append(const LogLines& lines) {
        const QuilLock lock(m_lock);
        const std::size_t size = lines.text().size();
        if (!hasRoomFor(size, lines.lines().size())) {
            flushLocked();
        }
        if (!hasRoomFor(size, lines.lines().size())) {
            return false;
        }
        char* at = std::copy_n(lines.text().data(), size, m_bytes.data() + m_used) - size;
        for (const LogLines::Line& line : lines.lines()) {
            m_lines[m_count++] = {line.level, at + line.begin, line.length};
        }
        m_used += size;
        return true;
    }
    void flush() {
        const QuilLock lock(m_lock);
        flushLocked();
    }

    std::atomic<bool> isHeld{false};

  private:
    bool hasRoomFor(std::size_t bytes, std::size_t lines) const REQUIRES(m_lock) {
        return m_bytes.size() - m_used >= bytes && m_lines.size() - m_count >= lines;
    }
    void handOver() REQUIRES(m_lock) {
        slogLines(kSlogCode, m_lines.data() + m_handedOver, m_count - m_handedOver);
        m_handedOver = m_count;
    }
    void flushLocked() REQUIRES(m_lock) {
        writeOut(m_bytes.data(), m_used);
        handOver();
        m_used = m_count = m_handedOver = 0;
    }

    QuilMutex m_lock;
    std::size_t m_used GUARDED_BY(m_lock) = 0;
    std::size_t m_count GUARDED_BY(m_lock) = 0;
    std::size_t m_handedOver GUARDED_BY(m_lock) = 0;  // of these lines
    std::array<SlogEntry, 1024> m_lines GUARDED_BY(m_lock);
    std::array<char, 65536> m_bytes GUARDED_BY(m_lock);
};

// More than there are threads; untouched ones cost nothing.
std::array<Buffer, 32> g_buffers;
thread_local Buffer* t_buffer = nullptr;

// The calling thread's, null when all are held.
Buffer* ownBuffer() {
    for (auto next = g_buffers.begin(); t_buffer == nullptr && next != g_buffers.end(); ++next) {
        if (!next->isHeld.load(std::memory_order_relaxed) && !next->isHeld.exchange(true)) {
            t_buffer = &*next;
        }
    }
    return t_buffer;
}

// In a function of its own, so that its buffer is on the stack only once there is room for it.
__attribute__((noinline, format(printf, 4, 0))) void emitAtOnce(int level, const char* sourcePath,
                                                                int number, const char* text,
                                                                va_list arguments) {
    char line[kLineBytes + 1];
    const std::size_t length = format(line, sourcePath, number, text, arguments);
    if (length == 0) {
        return;
    }
    if (LogLines* lines = LogLines::recording()) {
        lines->add(level, {line, length});
    }
    slogf(kSlogCode, level, "%.*s", static_cast<int>(length), line);
    line[length] = '\n';
    std::fwrite(line, 1, length + 1, stdout);
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
        Buffer* const buffer = g_isBuffered ? ownBuffer() : nullptr;
        if (buffer != nullptr) {
            buffer->append(level, sourcePath, line, format, arguments);
        } else {
            emitAtOnce(level, sourcePath, line, format, arguments);
        }
        va_end(arguments);
    } else {
        slogf(kSlogCode, LOG_LEVEL_SHORTAGE, "Couldn't allocate stack for error message...");
    }
    errno = savedErrno;
}

void logKeptLines(const LogLines& kept) {
    const int savedErrno = errno;
    Buffer* const buffer = g_isBuffered ? ownBuffer() : nullptr;
    if (buffer == nullptr || !buffer->append(kept)) {
        flushLogEcho();
        for (const LogLines::Line& line : kept.lines()) {
            const char* text = kept.text().data() + line.begin;
            slogf(kSlogCode, line.level, "%.*s", static_cast<int>(line.length), text);
        }
        std::fwrite(kept.text().data(), 1, kept.text().size(), stdout);
        if (g_isBuffered) {
            std::fflush(stdout);
        }
    }
    errno = savedErrno;
}

void raiseVerbosity(int n) {
    g_verbosity = n > kHighestVerbosity - g_verbosity ? kHighestVerbosity : g_verbosity + n;
}

void bufferLogEcho() {
    std::fflush(stdout);
    std::atexit(flushAllLogEchoes);
    g_isBuffered = true;
}

void flushLogEcho() {
    const int savedErrno = errno;
    if (!g_isBuffered) {
        std::fflush(stdout);
    } else if (t_buffer != nullptr) {
        t_buffer->flush();
        t_buffer->isHeld = false;
        t_buffer = nullptr;
    }
    errno = savedErrno;
}

void flushAllLogEchoes() {
    const int savedErrno = errno;
    std::fflush(stdout);
    for (Buffer& buffer : g_buffers) {
        buffer.flush();
    }
    errno = savedErrno;
}
