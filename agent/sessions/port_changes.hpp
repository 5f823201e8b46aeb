// Says whether the ports of the sessions are what they were: which there are, their numbers and
// sockets, and whether they are to be watched.

#pragma once

// Counts on with every change, once it has been made: a list that was taken after this was asked is
// still right as long as the count is the same. Any thread.
unsigned long countPortChanges();

// To be called behind each change. Any thread.
void notePortChange();
