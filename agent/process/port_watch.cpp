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
    m_wanted = sockets;
    m_changes = changes;
    enter(sockets);
    m_isEntered = m_others.empty();  // or else tried again
}

void PortWatch::enter(const std::vector<int>& sockets) {
    if (m_set == -1) {
        m_set = epoll_create1(EPOLL_CLOEXEC);
    }
    for (const int socket : m_watched) {
        epoll_ctl(m_set, EPOLL_CTL_DEL, socket, nullptr);  // closed ones have left by themselves
    }
    m_watched.clear();
    m_others.clear();
    m_watched.reserve(sockets.size());
    m_others.reserve(sockets.size());
    for (const int socket : sockets) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = socket;
        const bool isBehindSet =
            m_set >= 1 && m_set < kNumbers && epoll_ctl(m_set, EPOLL_CTL_ADD, socket, &event) == 0;
        (isBehindSet ? m_watched : m_others).push_back(socket);
    }
}

std::bitset<PortWatch::kNumbers> PortWatch::takeReady() const {
    std::array<epoll_event, kNumbers> events;
    const int count = epoll_wait(m_set, events.data(), static_cast<int>(events.size()), 0);
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
