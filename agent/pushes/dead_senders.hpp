// Connections that are kept for senders who have gone: those of pushes that wait for an answer, and
// those of pushes that wait for their application.

#pragma once

// Closes them, each at the earliest "push-timeout" after its sender hung up. Gives how many. Any
// thread.
int letGoOfDeadSenders();

// The same, once a second at the most; for every push that comes, and whatever else needs
// descriptors. Any thread.
void lookForDeadSenders();
