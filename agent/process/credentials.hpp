// Dropping to the user and groups that the agent is given.

#pragma once

// Switches the process to the user and groups of `spec` (NUL-terminated):
//   "UID"                 the user id alone; groups stay as they are
//   "UID:GID[,GROUP...]"  user, group and supplementary groups; without ",GROUP" there are none
//   "NAME"                the user, group and groups of that name in the user data base
// Numbers are read as C does: 0x... is hexadecimal, a leading 0 octal. Groups beyond the system's
// maximum are ignored. 0, or -1 with errno of the call that failed: EINVAL for an unknown name or a
// number beyond 32 bits, EPERM when the process may not. Only while the process has one thread.
int setCredentials(const char* spec);
