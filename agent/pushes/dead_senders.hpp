// Connections that are kept for senders who have gone: those of pushes that wait for an answer, and
// those of pushes that wait for their application.

#pragma once

// Closes them, each at the earliest "push-timeout" after its sender hung up. Gives how many. Any
// thread.
int letGoOfDeadSenders();

// The same, unless it was done a moment ago (at most a second); for every push that comes, and
// whatever else needs descriptors. Any thread.
void lookForDeadSenders();
