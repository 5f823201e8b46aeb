// The message handler thread: sends replies and notifications, and sees to it that push data
// servers are asked. What takes a moment alone is done by the main thread in its place while it is
// idle.

#pragma once

#include <chrono>

// Starts the thread "MSG HANDLER", which runs until the process ends. 1, or 0 when there is no
// queue or no thread.
int msgHandlerInit();

// While one lives on a thread, what that thread queues wakes the handler thread for nothing that
// can be handled at its end: pushes and replies, as long as the handler thread is idle and they
// wait behind nothing else. For the main thread, around one event. What the object service makes it
// wait meanwhile is added to the time that set-aside connections have.
class HandlingHere {
  public:
    HandlingHere();
    ~HandlingHere();
    HandlingHere(const HandlingHere&) = delete;
    HandlingHere& operator=(const HandlingHere&) = delete;

  private:
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
};
