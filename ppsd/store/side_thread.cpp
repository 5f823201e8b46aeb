// The hand-over is a semaphore one way and a flag with an event counter, which the service's poll
// watches, the other way: whoever has the work owns it, so there is nothing to lock.

#include "ppsd/store/side_thread.hpp"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

SideThread::~SideThread() {
    if (m_thread.joinable()) {
        wait();
        m_isEnding = true;
        m_go.release();
        m_thread.join();
    }
}

int SideThread::start(const char* name) {
    m_doneFd = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_doneFd) {
        return errno;
    }
    try {
        m_thread = std::thread([this, name] { loop(name); });
    } catch (const std::system_error& thrown) {
        m_doneFd.reset();
        return thrown.code().value();
    }
    return 0;
}

void SideThread::loop(const char* name) {
    pthread_setname_np(pthread_self(), name);
    for (;;) {
        m_go.acquire();
        if (m_isEnding) {
            return;
        }
        m_work();
        m_isDone.store(true, std::memory_order_release);
        m_isDone.notify_one();
        const std::uint64_t one = 1;
        static_cast<void>(!write(m_doneFd.get(), &one, sizeof one));
    }
}

void SideThread::run(std::function<void()> work) {
    if (!m_thread.joinable()) {
        m_isBusy = true;
        work();
        m_isDone = true;
        return;
    }
    m_work = std::move(work);
    m_isBusy = true;
    m_go.release();
}

bool SideThread::collect() {
    if (!m_isBusy || !m_isDone.load(std::memory_order_acquire)) {
        return false;
    }
    std::uint64_t count = 0;
    if (m_doneFd) {
        static_cast<void>(!read(m_doneFd.get(), &count, sizeof count));
    }
    m_isDone = false;
    m_isBusy = false;
    return true;
}

void SideThread::wait() {
    if (m_isBusy) {
        m_isDone.wait(false, std::memory_order_acquire);
    }
}
