// Pushes whose application is away: the object service ended before it could be told. They wait for
// its next "createSession", and nothing else of the application waits with them.

#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/messages/message_node.hpp"
#include "agent/support/locks.hpp"

// Owns the pushes and their connections. Safe on any thread.
class ParkedPushes {
  public:
    // Of one application, which is half of what there may be in all (pushDescriptors). Beyond
    // either the oldest is closed, with a line.
    static constexpr std::size_t kMostOfOne = 256;

    struct Parked {
        std::unique_ptr<QuilMessageNode> node;
        std::uint64_t number = 0;  // in the order of their coming
    };

    // The one instance; lives until the process ends. Null without memory.
    static ParkedPushes* getInstance();
    ParkedPushes(const ParkedPushes&) = delete;
    ParkedPushes& operator=(const ParkedPushes&) = delete;

    bool isEmpty() const { return m_size == 0; }
    bool hasAny(const std::string& appId);
    // Parks a push behind its application's others. Without memory it is closed, with a line.
    void park(std::unique_ptr<QuilMessageNode> node);
    // The application's oldest, which is the caller's then; without a node when there is none.
    Parked takeFirst(const std::string& appId);
    // Puts back what takeFirst gave, before the application's others.
    void putBack(Parked parked);

    // Closes those whose sender hung up, each at the earliest patienceWithHungUp() after that: the
    // sender does not count on them any more. Gives how many.
    int letGoOfDead();

  private:
    using Queue = std::deque<Parked>;

    ParkedPushes() = default;
    void insert(Parked parked, bool isFirst);
    // Takes out what has to go for one more of that application.
    Parked makeRoom(const std::string& appId, std::size_t* waiting) REQUIRES(m_lock);
    std::vector<Parked> takeDead(std::chrono::milliseconds patience);
    Parked takeFrom(std::map<std::string, Queue>::iterator queue) REQUIRES(m_lock);

    // A leaf: nothing is logged, closed or destroyed under it.
    QuilMutex m_lock;
    std::map<std::string, Queue> m_queues GUARDED_BY(m_lock);  // by application; none is empty
    std::atomic<std::size_t> m_size{0};                        // written under the lock
    std::uint64_t m_lastNumber GUARDED_BY(m_lock) = 0;
};
