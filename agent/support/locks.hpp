// Mutexes that the compiler checks: a field says which lock guards it (GUARDED_BY), a function
// which lock its caller holds (REQUIRES), and clang's -Wthread-safety refuses code that breaks the
// promise. g++ sees plain pthread mutexes.
//
// Lock order, outermost first: data manager, session manager, session, push sockets of a session or
// sockets of ports (portSocketLock), under which that of the lanes may be taken. The message queue,
// the lanes, the configuration and the log are leaves: whoever holds one of them takes no other.

#pragma once

#include <pthread.h>

#if defined(__clang__)
#define QUIL_ATTRIBUTE(x) __attribute__((x))
#else
#define QUIL_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) QUIL_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY QUIL_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) QUIL_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) QUIL_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) QUIL_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QUIL_ATTRIBUTE(release_capability(__VA_ARGS__))

// A mutex with default attributes.
class CAPABILITY("mutex") QuilMutex {
  public:
    QuilMutex() { reinitialise(); }
    QuilMutex(const QuilMutex&) = delete;
    QuilMutex& operator=(const QuilMutex&) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&m_mutex); }
    void unlock() RELEASE() { pthread_mutex_unlock(&m_mutex); }

    // Makes it a new, unlocked mutex. No thread may hold it or wait for it.
    void reinitialise() { pthread_mutex_init(&m_mutex, nullptr); }

    // For pthread_cond_wait; the caller holds the lock.
    pthread_mutex_t* native() { return &m_mutex; }

  private:
    pthread_mutex_t m_mutex;
};

// A mutex that its holder may take again.
class CAPABILITY("mutex") QuilRecursiveMutex {
  public:
    QuilRecursiveMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    QuilRecursiveMutex(const QuilRecursiveMutex&) = delete;
    QuilRecursiveMutex& operator=(const QuilRecursiveMutex&) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&m_mutex); }
    void unlock() RELEASE() { pthread_mutex_unlock(&m_mutex); }

  private:
    pthread_mutex_t m_mutex;
};

// Holds a mutex as long as it lives.
template <typename Mutex>
class SCOPED_CAPABILITY QuilLock {
  public:
    explicit QuilLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~QuilLock() RELEASE() { m_mutex.unlock(); }
    QuilLock(const QuilLock&) = delete;
    QuilLock& operator=(const QuilLock&) = delete;

  private:
    Mutex& m_mutex;
};
