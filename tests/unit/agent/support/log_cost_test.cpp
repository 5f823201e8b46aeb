// What a line costs: stack and memory. This program has a slogf of its own that costs neither, so
// that only logMessage's share is seen.

#include <alloca.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "agent/support/log.hpp"
#include "agent/support/stack_end.hpp"
#include "platform/slog/slog.hpp"
#include "tests/support/agent/process_fixture.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Of the sanitizers, whose header not every compiler brings along.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*,
                                                                          std::size_t),
                                                         void (*onFree)(const volatile void*));
#endif

namespace {

struct SlogLine {
    std::uint32_t code = 0;
    int severity = -1;
    char text[8192] = "";
    std::uintptr_t frame = 0;
};

SlogLine g_last;
int g_lines = 0;
// Allocations of this thread while it counts.
thread_local bool t_counts = false;
thread_local int t_allocations = 0;

void countAllocation() {
    t_allocations += t_counts ? 1 : 0;
}

std::uintptr_t frameAddress(void* frame) {
    return reinterpret_cast<std::uintptr_t>(frame);
}

}  // namespace

void slogf(std::uint32_t code, int severity, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(g_last.text, sizeof g_last.text, format, arguments);
    va_end(arguments);
    g_last.code = code;
    g_last.severity = severity;
    g_last.frame = frameAddress(__builtin_frame_address(0));
    ++g_lines;
}

void slogLines(std::uint32_t code, const SlogEntry* lines, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        slogf(code, lines[i].severity, "%.*s", static_cast<int>(lines[i].length), lines[i].text);
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
namespace {

void startCounting() {
    static const int installed = __sanitizer_install_malloc_and_free_hooks(
        [](const volatile void*, std::size_t) { countAllocation(); }, [](const volatile void*) {});
    ASSERT_NE(installed, 0);
    t_counts = true;
}

}  // namespace
#else
// The C library's own allocations come here too.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
    countAllocation();
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    countAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    countAllocation();
    return __libc_realloc(block, size);
}
void free(void* block) {
    __libc_free(block);
}
}

namespace {

void startCounting() {
    t_counts = true;
}

}  // namespace
#endif

namespace {

constexpr std::size_t kStackBytes = 2 * 1024 * 1024;  // the thread sanitizer wants one of them
constexpr std::size_t kBelowBytes = 64 * 1024;

// A thread whose stack ends where this test says. Below that end lies another mapping, which the
// thread may use all the same: running out of stack does no harm.
class SmallThread {
  public:
    SmallThread() {
        const int access = PROT_READ | PROT_WRITE;
        m_memory = static_cast<char*>(
            mmap(nullptr, kBelowBytes + kStackBytes, access, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        m_stack = static_cast<char*>(mmap(m_memory + kBelowBytes, kStackBytes, access,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0));
    }
    ~SmallThread() { munmap(m_memory, kBelowBytes + kStackBytes); }
    SmallThread(const SmallThread&) = delete;
    SmallThread& operator=(const SmallThread&) = delete;

    std::uintptr_t end() const { return reinterpret_cast<std::uintptr_t>(m_stack); }

    void run(const std::function<void()>& body) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        ASSERT_EQ(pthread_attr_setstack(&attributes, m_stack, kStackBytes), 0);
        pthread_t thread{};
        const auto start = [](void* argument) -> void* {
            (*static_cast<const std::function<void()>*>(argument))();
            return nullptr;
        };
        ASSERT_EQ(
            pthread_create(&thread, &attributes, start, const_cast<std::function<void()>*>(&body)),
            0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
    }

  private:
    char* m_memory;
    char* m_stack;
};

// Uses up the stack of the calling thread until `bytes` are left above `end`, then logs. Gives
// errno behind the line, which was 17 before.
__attribute__((noinline)) int logWithRoomOf(std::size_t bytes, std::uintptr_t end) {
    const std::uintptr_t here = frameAddress(__builtin_frame_address(0));
    auto* used = static_cast<volatile char*>(alloca(here - end - bytes));
    used[0] = 'u';
    errno = 17;
    logMessage(5, "a.cpp", 1, "the text");
    const int after = errno;
    used[0] = 'v';
    return after;
}

bool isShortageLine() {
    return g_last.severity == 1 &&
           std::strcmp(g_last.text, "Couldn't allocate stack for error message...") == 0;
}

}  // namespace

TEST(LogStack, ThreadWithLittleStackGetsTheFixedLine) {
    SmallThread thread;
    int after = 0;
    CapturedOutput output;
    thread.run([&] { after = logWithRoomOf(3000, thread.end()); });
    EXPECT_EQ(output.take(), "") << "the fixed line is not echoed";
    EXPECT_EQ(std::string(g_last.text), "Couldn't allocate stack for error message...");
    EXPECT_EQ(g_last.severity, 1);
    EXPECT_EQ(g_last.code, 11000U);
    EXPECT_EQ(g_lines, 1);
    EXPECT_EQ(after, 17);
}

TEST(LogStack, ThreadWithMuchStackGetsItsText) {
    SmallThread thread;
    thread.run([&] { logWithRoomOf(32768, thread.end()); });
    EXPECT_EQ(std::string(g_last.text), "QUIL:a.cpp(1): the text");
    EXPECT_EQ(g_lines, 1);
}

TEST(LogStack, SuppressedLineIsSilentWithLittleStackToo) {
    SmallThread thread;
    thread.run([&] {
        const std::uintptr_t here = frameAddress(__builtin_frame_address(0));
        auto* used = static_cast<volatile char*>(alloca(here - thread.end() - 2000));
        used[0] = 'u';
        logMessage(6, "a.cpp", 1, "the text");
    });
    EXPECT_EQ(g_lines, 0);
}

// The room is measured somewhere between the caller's frame and slogf's.
TEST(LogStack, LimitIs4224Bytes) {
    SmallThread thread;
    std::size_t mostRoomWithoutText = 0;
    std::size_t leftForSlogf = 0;
    thread.run([&] {
        for (std::size_t room = 3072; room < 8192; room += 16) {
            logWithRoomOf(room, thread.end());
            if (isShortageLine()) {
                mostRoomWithoutText = room;
                leftForSlogf = g_last.frame - thread.end();
            }
        }
    });
    EXPECT_GE(mostRoomWithoutText, 4224U - 16U);
    EXPECT_LE(leftForSlogf, 4224U);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LE(mostRoomWithoutText, 4224U + 512U);
#endif
}

TEST(LogStack, FirstLineOfAThreadMayBeTheOneWithLittleStack) {
    for (int i = 0; i < 3; ++i) {
        SmallThread thread;
        g_last = SlogLine{};
        thread.run([&] { logWithRoomOf(2048, thread.end()); });
        EXPECT_TRUE(isShortageLine()) << g_last.text;
    }
}

TEST(LogStack, MainThreadHasItsLimitToGrow) {
    rlimit limit{};
    getrlimit(RLIMIT_STACK, &limit);
    const std::uintptr_t here = frameAddress(__builtin_frame_address(0));
    const std::uintptr_t end = findStackEnd();
    if (limit.rlim_cur == RLIM_INFINITY) {
        EXPECT_EQ(end, 0U);
        return;
    }
    EXPECT_LT(end, here);
    EXPECT_GT(here - end, limit.rlim_cur / 2);
    EXPECT_LE(here - end, limit.rlim_cur);
}

TEST(LogStack, MainThreadWithoutALimitLogs) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
        if (setrlimit(RLIMIT_STACK, &limit) != 0) {
            _exit(2);  // an ordinary user may not raise it
        }
        logMessage(5, nullptr, 0, "text");
        _exit(std::strcmp(g_last.text, "QUIL: text") == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2) {
        GTEST_SKIP() << "the stack's limit cannot be raised";
    }
    EXPECT_EQ(status, 0);
}

TEST(LogStack, LargeMainStackIsNoShortage) {
    auto* used = static_cast<volatile char*>(alloca(1024 * 1024));
    used[0] = 'u';
    logMessage(5, nullptr, 0, "text");
    EXPECT_EQ(std::string(g_last.text), "QUIL: text");
}

TEST(LogStack, FindingTheEndOfTheStackLeavesNoDescriptor) {
    const int before = countDescriptors();
    SmallThread thread;
    std::uintptr_t found = 0;
    thread.run([&] { found = findStackEnd(); });
    EXPECT_EQ(found, thread.end());
    EXPECT_EQ(countDescriptors(), before);
}

TEST(LogStack, EndAgreesWithWhatTheThreadWasGiven) {
    pthread_attr_t attributes;
    void* lowest = nullptr;
    std::uintptr_t found = 0;
    std::thread thread([&] {
        std::size_t size = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &lowest, &size);
        pthread_attr_destroy(&attributes);
        found = findStackEnd();
    });
    thread.join();
    EXPECT_EQ(found, reinterpret_cast<std::uintptr_t>(lowest));
}

TEST(LogMemory, CounterSeesAnAllocation) {
    startCounting();
    void* volatile block = malloc(1000);  // not to be left out by the compiler
    free(block);
    t_counts = false;
    EXPECT_GE(t_allocations, 1);
}

TEST(LogMemory, NoLineAllocatesNotEvenTheFirstOfAThread) {
    std::printf("(the echo has its buffer now)\n");
    int allocations = -1;
    const std::string longText(20000, 'x');
    std::thread thread([&] {
        startCounting();
        logMessage(5, "a/b.cpp", 1, "text %d %s", 7, "x");
        logMessage(5, nullptr, 1, "text");
        logMessage(5, "a/b.cpp", 1, "%s", longText.c_str());
        logMessage(6, "a/b.cpp", 1, "suppressed");
        flushLogEcho();
        t_counts = false;
        allocations = t_allocations;
    });
    thread.join();
    EXPECT_EQ(g_lines, 3);
    EXPECT_EQ(allocations, 0);
}

TEST(LogMemory, FirstLineOfTheMainThreadDoesNotAllocate) {
    std::printf("(the echo has its buffer now)\n");
    startCounting();
    logMessage(5, "a/b.cpp", 1, "text");
    t_counts = false;
    EXPECT_EQ(g_lines, 1);
    EXPECT_EQ(t_allocations, 0);
}

TEST(LogMemory, ShortageLineDoesNotAllocate) {
    SmallThread thread;
    int allocations = -1;
    thread.run([&] {
        startCounting();
        logWithRoomOf(3000, thread.end());
        t_counts = false;
        allocations = t_allocations;
    });
    EXPECT_TRUE(isShortageLine()) << g_last.text;
    EXPECT_EQ(allocations, 0);
}
