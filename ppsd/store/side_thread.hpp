// Does work that may take its time beside the thread of the service, so that nobody waits for it
// who has no business with it.
//
// One piece of work at a time: it is handed over, done, and collected. All calls belong to the
// thread of the service; the work itself must touch nothing that the service looks at meanwhile.

#pragma once

#include <atomic>
#include <functional>
#include <semaphore>
#include <thread>

#include "ppsd/store/unique_fd.hpp"

class SideThread {
  public:
    SideThread() = default;
    ~SideThread();  // when the work that was begun is done
    SideThread(const SideThread&) = delete;
    SideThread& operator=(const SideThread&) = delete;

    // Until this is called, run() does its work itself, before it returns. `name` is what the
    // system shows, 15 bytes at the most. 0 or an errno value.
    int start(const char* name);

    // Readable when there is work to collect; -1 when not started.
    int descriptor() const { return m_doneFd.get(); }

    // Not to be called while isBusy(). `work` must not throw.
    void run(std::function<void()> work);

    // Handed over and not collected.
    bool isBusy() const { return m_isBusy; }

    // True, once for each piece of work, when it is done.
    bool collect();
    // Blocks until the work that was handed over is done.
    void wait();

  private:
    void loop(const char* name);

    UniqueFd m_doneFd;  // an event counter
    std::thread m_thread;
    std::function<void()> m_work;  // of the thread while it is busy
    std::binary_semaphore m_go{0};
    std::atomic<bool> m_isDone{false};
    bool m_isBusy = false;
    bool m_isEnding = false;
};
