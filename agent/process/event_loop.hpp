// The main thread's loop, and what prepares it.

#pragma once

// Starts the message handler thread and opens the client interface. 1, or 0 when one of them
// failed; the process goes on all the same, and the loop then says what is missing.
int quilAgentInit();

// Waits for clients, pushes and wake-ups until it has to give up: an unusable descriptor, or a
// failed SIM-change pass. Main thread only.
void quilAgentLoop();
