// What follows whenever a session has given up its port.

#pragma once

// After a port has been freed: wakes the main loop and saves the sessions. Any thread.
void cleanup();
