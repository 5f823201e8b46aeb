// Says whether the ports of the sessions are what they were: which there are, their numbers and
// sockets, and whether they are to be watched.

#pragma once

#include "agent/support/locks.hpp"

// Counts on with every change, once it has been made: a list that was taken after this was asked is
// still right as long as the count is the same. Any thread.
unsigned long countPortChanges();

// To be called behind each change. Any thread.
void notePortChange();

// Held while the socket of a port is closed, and by whoever wants the numbers of sockets to stay
// what they are. Nothing waits under it.
QuilMutex& portSocketLock();
