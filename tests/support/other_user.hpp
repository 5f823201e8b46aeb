// Opening a file as another user, for tests that run as root.

#pragma once

#include <sys/types.h>

#include <string>

// The descriptor of `path`, opened for reading and writing by a child of this process that has
// become that user, with that group alone. -1 when that failed.
int openAs(const std::string& path, uid_t user, gid_t group);
