// The descriptors that pushes may have. The others are for what is no push: listening sockets,
// talks with push data servers, the object service when it comes back. So senders can use up their
// own share only, and nobody has to be hung up on for want of a descriptor.

#pragma once

#include <cstddef>
#include <cstdint>

struct PushDescriptors {
    // Accepted connections have the numbers from 256 up to, not including, `end`; and, where there
    // are few descriptors at all, those from `first` on too.
    int first;
    int end;
    // Kept connections of one session, connections whose push is not in yet, and pushes whose
    // application is away: as many of each at once, and there still is room for pushes on their way
    // from one to the other.
    std::size_t mostKeptOfOneSession;
    std::size_t mostSetAside;
    std::size_t mostParked;
};

// What follows from a limit on open files.
PushDescriptors pushDescriptorsFor(std::uint64_t limit);
// What follows from the limit of this process, as it is now.
PushDescriptors pushDescriptors();

// Whether one more push may have a descriptor now.
bool isDescriptorLeftForPush();
// Moves an accepted connection to a number of theirs, close-on-exec, and gives it. Where there is
// none it stays what it was.
int moveToPushDescriptor(int socket);
