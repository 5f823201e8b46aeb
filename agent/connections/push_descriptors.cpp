// The system gives out the lowest number that is free. With accepted connections moved up, what is
// free below them, or above them, is what the others have left.

#include "agent/connections/push_descriptors.hpp"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "agent/support/high_descriptor.hpp"

namespace {

// From so many on all numbers below 256 are for listening sockets, of which there may be as many.
constexpr std::uint64_t kMany = 1024;
constexpr std::uint64_t kMostReserved = 128;
constexpr std::uint64_t kMostSetAside = 1024;
constexpr std::uint64_t kMostParked = 1024;

// Main thread only, like all that accepts: the end of their numbers as it was when it mattered
// last, and the number that a push was given last.
int g_knownEnd = 0;
int g_lastNumber = INT_MAX;

// Far from the end, wherever that has moved meanwhile: there is nothing to look into, which would
// cost more system calls than all else about a descriptor.
bool isFarFromEnd(int number) {
    return number < g_knownEnd / 2;
}

// The lowest free number among those of pushes, opened for `socket`; -1 for none.
int duplicateForPush(int socket) {
    int number = fcntl(socket, F_DUPFD_CLOEXEC, FIRST_HIGH_DESCRIPTOR);
    if (number != -1 && isFarFromEnd(number)) {
        return number;
    }
    const PushDescriptors theirs = pushDescriptors();
    g_knownEnd = theirs.end;
    if (number == -1 && theirs.first < FIRST_HIGH_DESCRIPTOR) {
        number = fcntl(socket, F_DUPFD_CLOEXEC, theirs.first);
    }
    if (number < theirs.end) {
        return number;
    }
    close(number);
    errno = EMFILE;
    return -1;
}

}  // namespace

PushDescriptors pushDescriptorsFor(std::uint64_t limit) {
    limit = std::min<std::uint64_t>(limit, INT_MAX);
    const bool areMany = limit >= kMany;
    const std::uint64_t first = areMany ? FIRST_HIGH_DESCRIPTOR : limit / 4;
    const std::uint64_t end = areMany ? limit - std::min(limit / 32, kMostReserved) : limit;
    const auto bounded = [](std::uint64_t most, std::uint64_t share) {
        return static_cast<std::size_t>(std::clamp<std::uint64_t>(share, 1, most));
    };
    return {.first = static_cast<int>(first),
            .end = static_cast<int>(end),
            .mostKeptOfOneSession = bounded(INT_MAX, limit / 2),
            .mostSetAside = bounded(kMostSetAside, limit / 8),
            .mostParked = bounded(kMostParked, limit / 16)};
}

PushDescriptors pushDescriptors() {
    rlimit limit{};
    const bool isKnown = getrlimit(RLIMIT_NOFILE, &limit) == 0;
    return pushDescriptorsFor(isKnown ? limit.rlim_cur : RLIM_INFINITY);
}

// Numbers are given from the lowest on, one at a time.
bool isDescriptorLeftForPush() {
    if (isFarFromEnd(g_lastNumber)) {
        return true;
    }
    const int number = duplicateForPush(STDIN_FILENO);  // which start-up has seen to
    if (number == -1) {
        return errno == EBADF;  // without it nothing is known, and accept will tell
    }
    close(number);
    return true;
}

int moveToPushDescriptor(int socket) {
    const int number = duplicateForPush(socket);
    g_lastNumber = number == -1 ? INT_MAX : number;
    if (number == -1) {
        return socket;
    }
    close(socket);
    return number;
}
