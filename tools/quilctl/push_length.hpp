// How much data a push ought to have.

#pragma once

#include <cstdint>
#include <optional>

#include "quilclient/push.hpp"

// What its Content-Length says, read as the agent reads it: in exactly this spelling, the last one
// counts, and of it the number that it begins with (0 without one). None without a Content-Length.
std::optional<std::uint64_t> announcedBytes(const quilclient::Push& push);

// It broke off, or its sender counts wrongly: it has less data than announced.
bool isShort(const quilclient::Push& push);
