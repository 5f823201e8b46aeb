// Senders that have gone from a connection that is kept for them.

#pragma once

#include <chrono>

// How long a sender that hung up may still be answered, since it may have closed its writing half
// alone and wait: "push-timeout", or half a minute without one.
std::chrono::milliseconds patienceWithHungUp();

// Whether the sender hung up, or closed its writing half, so long ago, as far as its kernel has
// told.
bool hasHungUpFor(int socket, std::chrono::milliseconds time);
