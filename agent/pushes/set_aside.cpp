// An epoll descriptor can itself be waited on by select, however high the numbers behind it are.
// The timer for the nearest deadline is one of those numbers; with nothing set aside it stands
// still.

#include "agent/pushes/set_aside.hpp"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/connections/push_descriptors.hpp"
#include "agent/support/high_descriptor.hpp"
#include "agent/support/log.hpp"

namespace {

using Clock = PushConnection::Clock;

constexpr std::uint64_t kTimerNumber = 0;
// Of one pass, so that those who drip cannot keep clients waiting.
constexpr int kMostEventsAPass = 64;

// Between the two lines between which the loop serves a port, so that whoever reads the log knows
// whose push the lines between them are about.
template <typename Work>
void asOfItsPort(const PushConnection& connection, Work work) {
    const std::string& appId = connection.appId();
    const QuilPort& port = connection.session().getPort();
    QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: Port %d receiving data for App id [%s]",
             port.getPort(), appId.c_str());
    work();
    QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: serverIfProcessData port [%d] fd[%d]", port.getPort(),
             port.getSocket());
}

// `operation` begins to watch the descriptor, or goes on.
bool watch(int poll, int operation, int descriptor, std::uint64_t number,
           std::uint32_t events = EPOLLIN) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = number;
    return epoll_ctl(poll, operation, descriptor, &event) == 0;
}

// A connection tells once, and again when its push is still not in: with the push it may go to
// whoever keeps it for the answer, and is not asked after here any more.
bool watchOnce(int poll, int operation, const PushConnection& connection, std::uint64_t number) {
    return watch(poll, operation, connection.socket(), number, EPOLLIN | EPOLLONESHOT);
}

}  // namespace

SetAsideConnections::SetAsideConnections()
    : m_poll(epoll_create1(EPOLL_CLOEXEC)),
      m_timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (m_poll.get() == -1 || m_timer.get() == -1) {
        return;
    }
    OwnedSocket high(moveToHighDescriptor(m_timer.release()));
    m_timer.reset(high.release());
    watch(m_poll.get(), EPOLL_CTL_ADD, m_timer.get(), kTimerNumber);
}

void SetAsideConnections::add(std::unique_ptr<PushConnection> connection) {
    makeRoomFor(*connection);
    const std::uint64_t number = ++m_lastNumber;
    PushConnection& added = *connection;
    const auto deadline = m_deadlines.emplace(added.deadline(), number).first;
    Connections::iterator place;
    try {
        place = m_connections.emplace_hint(m_connections.end(), number, std::move(connection));
    } catch (...) {
        m_deadlines.erase(deadline);
        throw;
    }
    if (!watchOnce(m_poll.get(), EPOLL_CTL_ADD, added, number)) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "setAside: push for app id [%s] cannot be waited for: errno[%d] error[%s]",
                 added.appId().c_str(), errno, strerror(errno));
        remove(place);
        return;
    }
    setTimer();
}

void SetAsideConnections::serve() {
    closeOverdue();  // first: bytes that come when the time is up come too late
    std::array<epoll_event, kMostEventsAPass> events;
    const int count = epoll_wait(m_poll.get(), events.data(), kMostEventsAPass, 0);
    for (int i = 0; i < count; ++i) {
        const std::uint64_t number = events[static_cast<std::size_t>(i)].data.u64;
        if (number != kTimerNumber) {
            advance(number);
        }
    }
    if (m_wakeAt <= Clock::now()) {
        m_wakeAt = Clock::time_point::max();
    }
    setTimer();
}

void SetAsideConnections::advance(std::uint64_t number) {
    const auto found = m_connections.find(number);
    if (found == m_connections.end()) {
        return;
    }
    PushConnection::Progress progress = PushConnection::Progress::Done;
    asOfItsPort(*found->second, [&] {
        try {
            progress = found->second->advance();
        } catch (...) {
            QUIL_LOG(LOG_LEVEL_WARNING,
                     "quilAgentLoop: exception occurred when trying to serverIfProcessData");
        }
    });
    if (progress == PushConnection::Progress::Done ||
        !watchOnce(m_poll.get(), EPOLL_CTL_MOD, *found->second, number)) {
        remove(found);
    }
}

void SetAsideConnections::closeOverdue() {
    const Clock::time_point now = Clock::now();
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now) {
        const auto overdue = m_connections.find(m_deadlines.begin()->second);
        asOfItsPort(*overdue->second, [&overdue] { overdue->second->logTimeout(); });
        remove(overdue);
    }
}

void SetAsideConnections::remove(Connections::iterator connection) {
    m_deadlines.erase({connection->second->deadline(), connection->first});
    m_connections.erase(connection);
}

// Among those of one session, or of all with null.
SetAsideConnections::Connections::iterator SetAsideConnections::longestSilent(
    const QuilSession* session) {
    auto silent = m_connections.end();
    for (auto at = m_connections.begin(); at != m_connections.end(); ++at) {
        const bool counts = session == nullptr || &at->second->session() == session;
        if (counts && (silent == m_connections.end() ||
                       at->second->lastHeard() < silent->second->lastHeard())) {
            silent = at;
        }
    }
    return silent;
}

void SetAsideConnections::closeSilent(Connections::iterator connection) {
    QUIL_LOG(LOG_LEVEL_WARNING,
             "setAside: push for app id [%s] given up: of %d that wait it has been silent longest",
             connection->second->appId().c_str(), static_cast<int>(m_connections.size()));
    remove(connection);
}

void SetAsideConnections::makeRoomFor(const PushConnection& newcomer) {
    const auto ofSession = std::count_if(
        m_connections.begin(), m_connections.end(),
        [&newcomer](const auto& entry) { return &entry.second->session() == &newcomer.session(); });
    if (static_cast<std::size_t>(ofSession) >= kMostPerPort) {
        closeSilent(longestSilent(&newcomer.session()));
    } else if (m_connections.size() >= pushDescriptors().mostSetAside) {
        closeSilent(longestSilent(nullptr));
    }
}

void SetAsideConnections::postpone(Clock::duration time) {
    for (const auto& entry : m_connections) {
        // The same place for another time: nothing is allocated.
        auto deadline = m_deadlines.extract({entry.second->deadline(), entry.first});
        entry.second->postpone(time);
        deadline.value().first = entry.second->deadline();
        m_deadlines.insert(std::move(deadline));
    }
    setTimer();
}

void SetAsideConnections::wakeAt(Clock::time_point moment) {
    m_wakeAt = moment;
    setTimer();
}

void SetAsideConnections::setTimer() {
    Clock::time_point next = m_wakeAt;
    if (!m_deadlines.empty()) {
        next = std::min(next, m_deadlines.begin()->first);
    }
    if (next == m_timerSetTo) {
        return;
    }
    m_timerSetTo = next;
    itimerspec when{};  // all zero: it stands still
    if (next != Clock::time_point::max()) {
        const auto since = next.time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
        when.it_value.tv_sec = static_cast<time_t>(seconds.count());
        when.it_value.tv_nsec =
            static_cast<long>(std::chrono::nanoseconds(since - seconds).count());
    }
    timerfd_settime(m_timer.get(), TFD_TIMER_ABSTIME, &when, nullptr);
}
