// The C library can tell, but it allocates to do so, and for the main thread it reads a file
// through a stream, which takes more stack than a caller who asks for this may have left. The list
// of mappings says it too: a thread's stack is a mapping of its own, with a guard below it, and the
// main thread's is one that grows until its limit.

#include "agent/support/stack_end.hpp"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>

namespace {

constexpr std::size_t kChunkBytes = 256;

struct Range {
    std::uintptr_t low = 0;
    std::uintptr_t high = 0;  // one behind the last byte
};

std::uintptr_t appendHexDigit(std::uintptr_t number, char digit) {
    const int value = digit <= '9' ? digit - '0' : digit - 'a' + 10;
    return number * 16 + static_cast<std::uintptr_t>(value);
}

// Takes the list "LOW-HIGH rest of the line\n" in pieces of any size.
class MappingSearch {
  public:
    explicit MappingSearch(std::uintptr_t address) : m_address(address) {}

    // True once the mapping that holds the address has been seen.
    bool take(char byte) {
        if (byte == '\n') {
            m_range = Range{};
            m_field = Low;
        } else if (m_field == Low && byte == '-') {
            m_field = High;
        } else if (m_field == High && byte == ' ') {
            m_field = Rest;
            return m_range.low <= m_address && m_address < m_range.high;
        } else if (m_field == Low) {
            m_range.low = appendHexDigit(m_range.low, byte);
        } else if (m_field == High) {
            m_range.high = appendHexDigit(m_range.high, byte);
        }
        return false;
    }
    Range range() const { return m_range; }

  private:
    enum Field { Low, High, Rest };
    std::uintptr_t m_address;
    Range m_range;
    Field m_field = Low;
};

// An empty range when there is no list, or none of its mappings holds the address.
Range findMapping(std::uintptr_t address) {
    const int list = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (list == -1) {
        return {};
    }
    MappingSearch search(address);
    bool isFound = false;
    char chunk[kChunkBytes];
    ssize_t count = read(list, chunk, sizeof chunk);
    while (!isFound && count > 0) {
        for (ssize_t i = 0; i < count && !isFound; ++i) {
            isFound = search.take(chunk[i]);
        }
        count = isFound ? 0 : read(list, chunk, sizeof chunk);
    }
    close(list);
    return isFound ? search.range() : Range{};
}

}  // namespace

std::uintptr_t findStackEnd() {
    const Range stack = findMapping(reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)));
    if (gettid() != getpid()) {
        return stack.low;
    }
    rlimit limit{};
    const bool isLimited = getrlimit(RLIMIT_STACK, &limit) == 0 && limit.rlim_cur < stack.high;
    return isLimited ? stack.high - static_cast<std::uintptr_t>(limit.rlim_cur) : 0;
}
