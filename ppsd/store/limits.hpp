// Every bound of the object service, in one place.

#pragma once

#include <cstddef>

// The longest name of an object or folder, without options.
inline constexpr std::size_t kNameMaxBytes = 255;

// The largest write to an ordinary object.
inline constexpr std::size_t kObjectWriteMaxBytes = 64 * 1024;

// The largest text that an ordinary object may grow to by many writes. A write that would pass it
// fails with ENOSPC: without a bound, one writer could fill the memory of the service. A page
// below what one request of the kernel carries, so that a text never fills a request: the kernel
// would send a second one for the rest of a larger buffer, and with "?wait" that one would wait.
inline constexpr std::size_t kObjectTextMaxBytes = 1024 * 1024 - 4096;

// The largest message on a served object, either way, as it is handed to write.
inline constexpr std::size_t kMessageMaxBytes = 256 * 1024;

// Messages that wait for one client.
inline constexpr std::size_t kClientQueueMaxBytes = 1024 * 1024;

// Messages of one connected client that wait for the server.
inline constexpr std::size_t kServerQueuePerClientMaxBytes = 1024 * 1024;

// Messages of clients of one user that closed before the server read them, all of them together.
// Keeps a client that writes, closes and opens again in a circle from passing the bound above.
inline constexpr std::size_t kServerQueueDepartedMaxBytes = 64 * 1024 * 1024;

// What such a client counts for beside its messages, which can be small: its place among those who
// have a turn, and its closing.
inline constexpr std::size_t kDepartedClientBytes = 512;

// What st_blksize says: programs that size their buffer by it take any message whole.
inline constexpr std::size_t kPreferredBlockBytes = 512 * 1024;
