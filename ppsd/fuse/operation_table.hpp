// The operations as the library wants to have them: a table of functions.

#pragma once

#include "ppsd/fuse/operations.hpp"

// The functions to give to fuse_session_new, with an Operations as the user data.
fuse_lowlevel_ops operationTable();
