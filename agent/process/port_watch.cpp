#include "agent/process/port_watch.hpp"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cstddef>

void PortWatch::watch(const std::vector<int>& sockets, unsigned long changes) {
    if (m_isEntered && changes == m_changes && sockets == m_wanted) {
        return;
    }
    m_isEntered = false;
    m_watched.clear();
    m_others.clear();
    m_watched.reserve(sockets.size());
    m_others.reserve(sockets.size());
    m_wanted = sockets;
    m_changes = changes;
    enter(sockets);
    m_isEntered = m_others.empty();  // or else tried again
}

// Into a new set: of those that are in the old one, some may have become other files' numbers.
void PortWatch::enter(const std::vector<int>& sockets) {
    m_set.reset(epoll_create1(EPOLL_CLOEXEC));
    for (const int socket : sockets) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = socket;
        const bool isBehindSet = m_set.get() >= 1 && m_set.get() < kNumbers &&
                                 epoll_ctl(m_set.get(), EPOLL_CTL_ADD, socket, &event) == 0;
        (isBehindSet ? m_watched : m_others).push_back(socket);
    }
}

std::bitset<PortWatch::kNumbers> PortWatch::takeReady() const {
    std::array<epoll_event, kNumbers> events;
    const int count = epoll_wait(m_set.get(), events.data(), static_cast<int>(events.size()), 0);
    std::bitset<kNumbers> ready;
    for (int i = 0; i < count; ++i) {
        ready.set(static_cast<std::size_t>(events[static_cast<std::size_t>(i)].data.fd));
    }
    return ready;
}

std::bitset<PortWatch::kNumbers> PortWatch::all() const {
    std::bitset<kNumbers> sockets;
    for (const int socket : m_watched) {
        sockets.set(static_cast<std::size_t>(socket));
    }
    return sockets;
}
