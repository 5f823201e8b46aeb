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

// What a client counts for in its user's share of memory, beside its messages: its place among
// those who have a turn, its opening and its closing. Held until the server has read that it
// closed, so that opening and closing in a circle leads to the end of the share and not of the
// memory.
inline constexpr std::size_t kClientBytes = 512;

// The shares of each user, unless the command line says otherwise. Memory: sixteen full queues, or
// thirty thousand silent clients. Files: what a program may open by default, sixteen times over.
inline constexpr std::size_t kUserMemoryBytes = 16 * 1024 * 1024;
inline constexpr std::size_t kUserFiles = 16 * 1024;
inline constexpr std::size_t kUserObjects = 8 * 1024;
inline constexpr std::size_t kUserStoredBytes = 32 * 1024 * 1024;

// The most levels of folders: the tree must come back after a restart.
inline constexpr int kFolderLevelsMax = 64;

// What st_blksize says: programs that size their buffer by it take any message whole.
inline constexpr std::size_t kPreferredBlockBytes = 512 * 1024;
