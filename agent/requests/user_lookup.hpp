// Finding out what the rules grant to a user: on a thread of its own, since the name service may
// take as long as it likes and the main loop may not.

#pragma once

#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <memory>

#include "agent/support/locks.hpp"
#include "platform/rules/rules.hpp"

class UserLookup {
  public:
    // Longest that the main loop waits for one look-up, and how many may be under way: whoever
    // opens connections in a storm must not take all threads.
    static constexpr std::chrono::milliseconds kPatience{200};
    static constexpr std::size_t kMostUnderWay = 16;

    enum class State { UnderWay, Done, Failed };

    // Begins a look-up, or joins the one that is under way for the same user and group. `rules`
    // have to stay as long as the process. Null when none can be begun now. Main thread.
    static std::shared_ptr<UserLookup> begin(const Rules& rules, std::uint32_t user,
                                             std::uint32_t group);

    // To be made by begin.
    UserLookup(const Rules& rules, std::uint32_t user, std::uint32_t group);
    ~UserLookup();
    UserLookup(const UserLookup&) = delete;
    UserLookup& operator=(const UserLookup&) = delete;

    // What has become of it. The first one to ask waits a little; those who ask for the same user
    // later do not wait for the same slowness again. Main thread.
    State await();
    // What the user is granted, once await gave Done.
    Grants grants();

  private:
    static void* runThread(void* handed);
    void run();
    bool isUnderWay();
    void waitFor(std::chrono::milliseconds time);

    const Rules& m_rules;
    const std::uint32_t m_user;
    const std::uint32_t m_group;
    bool m_wasAwaited = false;  // main thread only
    QuilMutex m_mutex;          // a leaf
    pthread_cond_t m_condition;
    State m_state GUARDED_BY(m_mutex) = State::UnderWay;
    Grants m_grants GUARDED_BY(m_mutex);
};
