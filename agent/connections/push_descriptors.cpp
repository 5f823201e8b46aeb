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

// The lowest free number among those of pushes, opened for `socket`; -1 for none.
int duplicateForPush(int socket) {
    const PushDescriptors theirs = pushDescriptors();
    int number = fcntl(socket, F_DUPFD_CLOEXEC, FIRST_HIGH_DESCRIPTOR);
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

bool isDescriptorLeftForPush() {
    const int number = duplicateForPush(STDIN_FILENO);  // which start-up has seen to
    if (number == -1) {
        return errno == EBADF;  // without it nothing is known, and accept will tell
    }
    close(number);
    return true;
}

int moveToPushDescriptor(int socket) {
    const int number = duplicateForPush(socket);
    if (number == -1) {
        return socket;
    }
    close(socket);
    return number;
}
