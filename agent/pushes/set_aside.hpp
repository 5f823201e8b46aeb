// Connections whose push is not in yet. Each goes on when its next bytes come, and is closed when
// its time is up; nobody waits for it.

#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "agent/connections/owned_socket.hpp"
#include "agent/pushes/push_connection.hpp"

// All of it lies behind one descriptor, which the main loop waits on. Main thread only.
class SetAsideConnections {
  public:
    // Beyond so many of one port, or beyond what there may be in all (pushDescriptors), the
    // connection that has been silent longest is closed.
    static constexpr std::size_t kMostPerPort = 64;

    SetAsideConnections();
    SetAsideConnections(const SetAsideConnections&) = delete;
    SetAsideConnections& operator=(const SetAsideConnections&) = delete;

    // Readable when serve() has something to do. -1 when the system gave none; then nothing can be
    // set aside.
    int descriptor() const { return m_poll.get(); }

    // Takes a connection over. It is closed at once, with a line, when it cannot be watched.
    void add(std::unique_ptr<PushConnection> connection);
    // Goes on with a bounded number of those whose bytes came, and closes those whose time is up.
    void serve();
    // Moves all deadlines by a time in which nobody could see to the connections.
    void postpone(PushConnection::Clock::duration time);

    std::size_t size() const { return m_connections.size(); }

    // Makes the descriptor readable at a moment, once, also when nothing is set aside. The last
    // moment that was given counts.
    void wakeAt(PushConnection::Clock::time_point moment);

  private:
    using Connections = std::map<std::uint64_t, std::unique_ptr<PushConnection>>;

    Connections::iterator longestSilent(const QuilSession* session);
    void closeSilent(Connections::iterator connection);
    void remove(Connections::iterator connection);
    void makeRoomFor(const PushConnection& newcomer);
    void advance(std::uint64_t number);
    void closeOverdue();
    void setTimer();

    OwnedSocket m_poll;
    OwnedSocket m_timer;
    Connections m_connections;  // numbered in the order of arrival
    // With their numbers. The order of arrival is another when time was added in between.
    std::set<std::pair<PushConnection::Clock::time_point, std::uint64_t>> m_deadlines;
    std::uint64_t m_lastNumber = 0;  // 0 is the timer's
    PushConnection::Clock::time_point m_wakeAt = PushConnection::Clock::time_point::max();
    PushConnection::Clock::time_point m_timerSetTo = PushConnection::Clock::time_point::max();
};
