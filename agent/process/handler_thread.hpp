// The message handler thread: sends replies and notifications, and sees to it that push data
// servers are asked.

#pragma once

// Starts the thread "MSG HANDLER", which runs until the process ends. 1, or 0 when there is no
// queue or no thread.
int msgHandlerInit();
