// How far the stack of a thread reaches.

#pragma once

#include <cstdint>

// Lowest address to which the calling thread's stack may grow, 0 when the system does not tell.
// Allocates nothing and leaves no descriptor behind; its own frames are some 400 bytes in a release
// build, but where calls are bound at their first use the dynamic linker takes a few kilobytes of
// stack for that. errno may change. Costs a walk through the list of mappings: to be asked once per
// thread.
std::uintptr_t findStackEnd();
