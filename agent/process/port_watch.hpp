// Stands for the listening sockets of all ports in the set that the main loop waits for.
//
// To have each of them in the set itself would cost a question to each in every pass, whichever is
// ready; behind one descriptor of epoll they are entered once, and those that are ready tell.

#pragma once

#include <bitset>
#include <vector>

#include "agent/connections/owned_socket.hpp"

// Main thread only.
class PortWatch {
  public:
    static constexpr int kNumbers = 256;  // of the descriptors that can be in the set

    // Watches these sockets, each below kNumbers, and no others. `changes` is countPortChanges()
    // as it was before they were collected: the same number may mean another socket after it. To
    // be called with portSocketLock() held since then.
    void watch(const std::vector<int>& sockets, unsigned long changes);

    // What to put into the set; -1 when no socket is behind it.
    int descriptor() const { return m_watched.empty() ? -1 : m_set.get(); }
    // Sockets that could not be put behind it, for want of memory or of a low descriptor, or
    // because they are none any more: to be put into the set themselves.
    const std::vector<int>& others() const { return m_others; }

    // The sockets behind the descriptor that are ready now.
    std::bitset<kNumbers> takeReady() const;
    // All that are behind it.
    std::bitset<kNumbers> all() const;

  private:
    void enter(const std::vector<int>& sockets);

    OwnedSocket m_set{-1};
    std::vector<int> m_watched;
    std::vector<int> m_others;
    std::vector<int> m_wanted;  // what watch() was given last
    unsigned long m_changes = 0;
    bool m_isEntered = false;
};
