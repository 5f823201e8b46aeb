// Descriptors of this process.

#pragma once

#include <fcntl.h>
#include <unistd.h>

inline bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

// How many are open, up to number 1023.
inline int countDescriptors() {
    int count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        count += isOpen(descriptor) ? 1 : 0;
    }
    return count;
}

// The number that the next opened descriptor will have.
inline int lowestFreeDescriptor() {
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(descriptor);
    return descriptor;
}
