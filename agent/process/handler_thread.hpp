// The message handler thread: does what must not block the main thread (talking to push data
// servers) and what follows from it (replies, notifications).

#pragma once

// Starts the thread "MSG HANDLER", which runs until the process ends. 1, or 0 when there is no
// queue or no thread.
int msgHandlerInit();
