// Exchanges with push data servers, beside the message handler thread: a server that does not
// answer holds up the application that asked for it, and nobody else.
//
// What is queued for an application while it has an exchange under way waits behind it in a lane of
// the application's own, so that all that concerns one application happens in the order in which it
// was queued, as if one thread did everything. Lanes are worked off by threads that are started
// when there is an exchange and end when there is none.

#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/messages/message_node.hpp"
#include "agent/support/locks.hpp"

class QuilExchanges {
  public:
    // Threads in all, and how many of them one server may hold. The last few are for servers that
    // hold none, so that a few dead ones leave room for others.
    static constexpr int kMostThreads = 16;
    static constexpr int kMostPerServer = 4;
    static constexpr int kThreadsForOthers = 4;

    // From so many nodes in its lane on, nothing more is taken off an application's port; the main
    // loop is woken when there are few again.
    static constexpr std::size_t kManyNodes = 64;
    static constexpr std::size_t kFewNodes = 16;

    // What requests may make one lane hold, about ten thousand answers, and all lanes together,
    // where a lane that holds little is let have that in any case. Beyond it nothing is dropped
    // either: answers go out past the lane, and exchanges end as failed ones before they begin.
    // Pushes and what ends an exchange always have room, as there are never many of them.
    static constexpr std::size_t kMostBytes = std::size_t{4} << 20;
    static constexpr std::size_t kMostBytesInAll = std::size_t{32} << 20;
    static constexpr std::size_t kFewBytes = std::size_t{64} << 10;

    // The one instance; lives until the process ends. Null without memory.
    static QuilExchanges* getInstance();
    QuilExchanges(const QuilExchanges&) = delete;
    QuilExchanges& operator=(const QuilExchanges&) = delete;

    // Takes the node when it begins an exchange, or when its application has one under way; it is
    // handled (handleNode) in its turn. False: it is the caller's to handle, now. For one thread at
    // a time, in the order of the queue. Where no thread can be started the exchange runs before
    // this returns.
    bool take(std::unique_ptr<QuilMessageNode>* node);

    // Whether many nodes wait in some lane, or in that application's. For the main loop, before
    // each wait.
    bool hasCrowd() const { return m_crowded != 0; }
    bool isCrowded(const std::string& appId);

  private:
    struct Lane {
        std::deque<std::unique_ptr<QuilMessageNode>> nodes;
        std::string server;     // that its present or next exchange is with
        std::size_t bytes = 0;  // of nodes that requests made
        bool isCrowded = false;
        bool isFull = false;  // which has been said
        // The answer to a "createSession" went past it: parked pushes are due at its end.
        bool hasReturned = false;
    };
    // Applications whose lanes wait for a thread, oldest first, by server.
    using Waiting = std::map<std::string, std::deque<std::string>>;

    enum class Appended { Yes, NoLane, NoRoom };

    QuilExchanges();
    Appended append(std::unique_ptr<QuilMessageNode>* node, std::size_t* newlyFull);
    bool hasRoomFor(const Lane& lane, std::size_t bytes) const REQUIRES(m_lock);
    void makeLane(const std::string& appId, const std::string& server,
                  std::unique_ptr<QuilMessageNode>* node) REQUIRES(m_lock);
    void queueLane(const std::string& appId, const std::string& server) REQUIRES(m_lock);
    void answerPastLane(std::unique_ptr<QuilMessageNode>* node);
    void startThread();
    static void* runThread(void* exchanges);
    void work();
    // takeNext for a thread, which is counted out when there is nothing for it.
    std::string beginNext();
    bool isAllowed(const std::string& server) const REQUIRES(m_lock);
    // Whose turn it is: servers in turn, those left out that hold enough threads. The end for none.
    Waiting::iterator findNext() REQUIRES(m_lock);
    // Marks the lane that is next as running and gives its application, "" for none.
    std::string takeNext() REQUIRES(m_lock);
    // Handles what is in the lane; up to the first exchange, or with `mayBeginExchange` the second,
    // which then waits for its turn.
    void workOff(const std::string& appId, bool mayBeginExchange);
    // What workOff has to do beside handling a node.
    struct Due {
        bool wakeUp = false;
        bool parkedPushes = false;
    };
    // The lane's next node; null when it is empty, and then the lane is gone unless parked pushes
    // are due, or when it has to wait for its turn.
    std::unique_ptr<QuilMessageNode> takeFrom(const std::string& appId, bool mayBeginExchange,
                                              Due* due);
    bool waitForTurn(const std::string& appId, Lane* lane) REQUIRES(m_lock);

    // A leaf: nothing else is taken, logged or destroyed under it.
    QuilMutex m_lock;
    std::map<std::string, Lane> m_lanes GUARDED_BY(m_lock);
    Waiting m_waiting GUARDED_BY(m_lock);
    std::string m_lastServer GUARDED_BY(m_lock);            // whose turn it was
    std::vector<const Lane*> m_running GUARDED_BY(m_lock);  // at most one a thread
    int m_threads GUARDED_BY(m_lock) = 0;
    std::size_t m_bytes GUARDED_BY(m_lock) = 0;  // of all lanes
    std::atomic<int> m_crowded{0};               // lanes; written under the lock
};
