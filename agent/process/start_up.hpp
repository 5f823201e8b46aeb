// Turns the process into the running agent. It stays in the foreground, installs no signal handler
// and has no orderly end: it is killed, or its loop gives up. The man page quilagent(8) tells what
// people see of it.

#pragma once

// Start-up, then the loop. Gives the exit status: 0 when the loop gave up, 1 when the start failed.
// Threads may be running then, so the caller must end the process without taking anything down.
// What the command line or the process itself gets wrong ends the process here, with status 1.
int runAgent(int argc, char** argv);
