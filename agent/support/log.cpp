// A line is formatted once, into memory that all threads share. Standard output and the system log
// get what has come together when a thread is about to wait: one call each, after the work is done.
// Warnings and errors go out at once.
//
// There are two buffers, so that no thread has to wait while another writes: under the lock some
// bytes are copied, and nothing else.

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
#include <iterator>
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

// Writes what fits.
class Text {
  public:
    Text(char* begin, std::size_t room) : m_begin(begin), m_at(begin), m_end(begin + room) {}

    void append(std::string_view text) {
        const auto room = static_cast<std::size_t>(m_end - m_at);
        m_at = std::copy_n(text.data(), std::min(text.size(), room), m_at);
    }
    void append(const char* text) {
        append(std::string_view(text, strnlen(text, static_cast<std::size_t>(m_end - m_at))));
    }
    void append(int number) {
        char digits[16];
        const char* end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
        append(std::string_view(digits, static_cast<std::size_t>(end - digits)));
    }
    std::size_t size() const { return static_cast<std::size_t>(m_at - m_begin); }

  private:
    char* m_begin;
    char* m_at;
    char* m_end;
};

// Formats what nearly all lines are made of, texts and numbers as they are, at a third of what the
// C library's formatter takes for it. False for a format that has anything else in it.
bool formatPlainly(Text* text, const char* format, va_list arguments) {
    for (;;) {
        const char* const mark = strchrnul(format, '%');
        text->append(std::string_view(format, static_cast<std::size_t>(mark - format)));
        if (*mark == '\0') {
            return true;
        }
        if (mark[1] == 's') {
            const char* value = va_arg(arguments, const char*);
            text->append(value == nullptr ? "(null)" : value);
        } else if (mark[1] == 'd') {
            text->append(va_arg(arguments, int));
        } else {
            return false;
        }
        format = mark + 2;
    }
}

// Writes the line without its line feed. Gives its length, 0 for one that cannot be formatted.
std::size_t format(char* line, const char* sourcePath, int number, const char* format,
                   va_list arguments) {
    const std::size_t place = writePlace(line, sourcePath, number);
    Text text(line + place, kTextBytes - 1);
    va_list again;
    va_copy(again, arguments);
    const bool isPlain = formatPlainly(&text, format, again);
    va_end(again);
    if (isPlain) {
        return place + text.size();
    }
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

// Lines that have not been written out, of all threads in the order in which they came.
struct Pending {
    std::size_t used = 0;
    std::size_t count = 0;
    std::array<SlogEntry, 2048> lines;
    std::array<char, 65536> bytes;

    bool hasRoomFor(std::size_t moreBytes, std::size_t moreLines) const {
        return bytes.size() - used >= moreBytes && lines.size() - count >= moreLines;
    }
};

// Two, so that lines can be added to one while the other is written out.
class Buffer {
  public:
    void append(int level, std::string_view line) {
        addWhenThereIsRoom(line.size() + 1, 1, [&](Pending* pending) {
            char* at = pending->bytes.data() + pending->used;
            pending->lines[pending->count++] = {level, at, line.size()};
            *std::copy(line.begin(), line.end(), at) = '\n';
            pending->used += line.size() + 1;
        });
        if (level <= LOG_LEVEL_WARNING) {
            flush();
        }
    }
    // False when there are more than fit.
    bool append(const LogLines& kept) {
        const std::string& text = kept.text();
        return addWhenThereIsRoom(text.size(), kept.lines().size(), [&](Pending* pending) {
            char* at = pending->bytes.data() + pending->used;
            std::copy(text.begin(), text.end(), at);
            for (const LogLines::Line& line : kept.lines()) {
                pending->lines[pending->count++] = {line.level, at + line.begin, line.length};
            }
            pending->used += text.size();
        });
    }
    // When it returns, everything that was added before is written out, or another thread is about
    // to: one that is writing already does not make others wait, but looks once more.
    void flush() {
        m_isWanted = true;
        while (m_isWanted && !m_isWriting.exchange(true)) {
            writeWhileWanted();
        }
    }
    // The same, and it is written out by the calling thread: another may have said that it has
    // ended just before it looks once more.
    void flushAndWait() {
        while (m_isWriting.exchange(true)) {
            m_isWriting.wait(true);
        }
        m_isWanted = true;
        writeWhileWanted();
        flush();  // for those who came to the end of that
    }

  private:
    template <typename Add>
    bool addWhenThereIsRoom(std::size_t bytes, std::size_t lines, Add add) {
        for (int attempts = 0; attempts < kAttempts; ++attempts) {
            {
                const QuilLock lock(m_lock);
                if (m_active->hasRoomFor(bytes, lines)) {
                    add(m_active);
                    return true;
                }
            }
            flushAndWait();
        }
        return false;
    }

    // By the thread that set m_isWriting, which has what is not active to itself.
    void writeWhileWanted() {
        while (m_isWanted.exchange(false)) {
            writeActive();
        }
        m_isWriting = false;
        m_isWriting.notify_all();
    }
    void writeActive() {
        Pending* full = nullptr;
        {
            const QuilLock lock(m_lock);
            full = m_active;
            m_active = full == &m_pending[0] ? &m_pending[1] : &m_pending[0];
        }
        writeOut(full->bytes.data(), full->used);
        slogLines(kSlogCode, full->lines.data(), full->count);
        full->used = full->count = 0;
    }

    // Other threads may fill a buffer again before this one comes to it.
    static constexpr int kAttempts = 100;

    std::atomic<bool> m_isWanted{false};
    std::atomic<bool> m_isWriting{false};
    QuilMutex m_lock;  // held while some bytes are copied
    Pending m_pending[2];
    Pending* m_active GUARDED_BY(m_lock) = &m_pending[0];
};

Buffer g_buffer;

// In a function of its own, so that its buffer is on the stack only once there is room for it.
__attribute__((noinline, format(printf, 4, 0))) void emit(int level, const char* sourcePath,
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
    if (g_isBuffered) {
        g_buffer.append(level, {line, length});
        return;
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
        emit(level, sourcePath, line, format, arguments);
        va_end(arguments);
    } else {
        slogf(kSlogCode, LOG_LEVEL_SHORTAGE, "Couldn't allocate stack for error message...");
    }
    errno = savedErrno;
}

void logKeptLines(const LogLines& kept) {
    const int savedErrno = errno;
    if (!g_isBuffered || !g_buffer.append(kept)) {
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
    std::atexit(finishLogEcho);
    g_isBuffered = true;
}

void flushLogEcho() {
    const int savedErrno = errno;
    if (g_isBuffered) {
        g_buffer.flush();
    } else {
        std::fflush(stdout);
    }
    errno = savedErrno;
}

void finishLogEcho() {
    const int savedErrno = errno;
    std::fflush(stdout);
    g_buffer.flushAndWait();
    errno = savedErrno;
}
