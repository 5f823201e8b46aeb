// Who makes a request, as far as the kernel's header of it does not say.

#pragma once

#include <sys/types.h>

// The process to which a thread belongs; the thread itself when that cannot be told. The kernel
// names the thread that makes a request, which is blocked until the answer and so cannot be gone.
pid_t processOf(pid_t thread);
