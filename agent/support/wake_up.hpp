// How any thread makes the main loop look at its ports anew: a byte through a pipe, whose read end
// the loop waits on.

#pragma once

// Makes the pipe. Gives the read end, which stays this unit's; -1 when there is no pipe. Both ends
// are non-blocking. Main thread, once, before its first wait.
int openWakeUp();

// Takes one of the bytes that are due, if there is one. Main thread.
void takeWakeUp();

// Makes the loop look at the ports anew. Any thread.
void wakeMainLoop();
