// The queue between the threads: first in, first out, and one node at a time: while one is handled,
// nobody is given the next.

#pragma once

#include <pthread.h>

#include <atomic>
#include <deque>
#include <memory>
#include <optional>

#include "agent/messages/message_node.hpp"
#include "agent/support/locks.hpp"

// Closes the connection of the push in the node, if there is one. For whoever gives up a node that
// nobody has taken over: the push is lost, and its sender learns that by the close.
void closeConnectionOf(const QuilMessageNode& node);

// Safe on any thread.
class QuilMessageManager {
  public:
    // The one instance; lives until the process ends. Null when it could not be made.
    static QuilMessageManager* getInstance();

    virtual ~QuilMessageManager();
    QuilMessageManager(const QuilMessageManager&) = delete;
    QuilMessageManager& operator=(const QuilMessageManager&) = delete;

    // Appends a node, taking ownership, and wakes the reader, unless it is kept waiting. 1, or 0
    // when the node is null or memory ran out: then the node is freed, and the connection of a push
    // in it is closed.
    int push(std::unique_ptr<QuilMessageNode> node);
    // Waits until there is a node and gives it to the caller, who has handled the one before. For
    // the one reader.
    std::unique_ptr<QuilMessageNode> pop();

    // In place of the reader while it waits: what a writer has queued it may handle itself, which
    // spares two switches between threads. A writer that means to says so beforehand; then its
    // nodes wake nobody until it has called takeHere() until that gives null.
    void keepReaderWaiting();
    // The oldest node if it `isQuick` and no other is being handled, after which handledHere() is
    // to be called. Null otherwise; then the reader has been woken for what is there.
    std::unique_ptr<QuilMessageNode> takeHere(bool (*isQuick)(const QuilMessageNode&));
    void handledHere();

    // So many nodes wait that no more pushes are to be taken in. Then the main loop is woken when
    // they have become few again.
    static constexpr int kManyNodes = 256;
    static constexpr int kFewNodes = 128;
    // For the main loop, before each wait.
    bool isCrowded();

    // So much of what requests have led to waits that the next request is to be left where it is:
    // with the object service, users have their turns, and here who asks last is answered last.
    // Then the main loop is woken when little of it is left. Pushes hold no request back.
    static constexpr int kManyRequests = 16;
    static constexpr int kFewRequests = 8;
    // For the main loop, before each wait.
    bool hasManyRequests();

  private:
    QuilMessageManager();
    // False without memory, then the node stays the caller's.
    bool append(std::unique_ptr<QuilMessageNode>* node);
    // The oldest node, null when the reader has to wait; and how many there were.
    std::unique_ptr<QuilMessageNode> take(int* size);
    std::unique_ptr<QuilMessageNode> takeFront() REQUIRES(m_mutex);
    void wakeLoopIfRoom(int size);
    // Waits for a signal, unless there is a node. The result of the wait if there was one.
    std::optional<int> wait();

    std::deque<std::unique_ptr<QuilMessageNode>> m_nodes GUARDED_BY(m_mutex);
    std::atomic<int> m_size{0};                 // of m_nodes, for those who ask without the lock
    std::atomic<int> m_requests{0};             // of m_nodes, those that are no pushes
    std::atomic<bool> m_isLoopHeldBack{false};  // the main loop is to be woken when few are left
    std::atomic<bool> m_areRequestsHeldBack{false};
    QuilMutex m_mutex;
    pthread_cond_t m_condition;
    int m_waiting GUARDED_BY(m_mutex) = 0;  // readers in the condition
    // A node that the reader, or somebody in its place, was given and is handling.
    bool m_isHandledByReader GUARDED_BY(m_mutex) = false;
    bool m_isHandledHere GUARDED_BY(m_mutex) = false;
};
