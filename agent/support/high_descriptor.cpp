#include "agent/support/high_descriptor.hpp"

#include <fcntl.h>
#include <unistd.h>

int moveToHighDescriptor(int descriptor) {
    const int high = fcntl(descriptor, F_DUPFD_CLOEXEC, FIRST_HIGH_DESCRIPTOR);
    if (high == -1) {
        return descriptor;
    }
    close(descriptor);
    return high;
}
