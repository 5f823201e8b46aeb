// Answers to open and create that the library has no call for: with the kernel's "stream" flag.
//
// Both ends of a served object are streams without a position. Without the flag the kernel holds
// the position's lock during a read, so that one thread waiting in read would block another
// thread's write to the same descriptor; and a shell would read ahead and seek back over what it
// did not use.

#pragma once

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include <cstdint>

// Results are those of fuse_reply_open and fuse_reply_create: 0, or a negative errno value when the
// kernel no longer waits for the answer (the file then counts as not opened).
int replyOpen(fuse_req_t request, std::uint64_t handle, bool isStream);
int replyCreate(fuse_req_t request, const fuse_entry_param& entry, std::uint64_t handle,
                bool isStream);
