// The thread and whoever waits share the look-up: whichever lets go of it last, ends it. So a
// connection may go away under a look-up, and a thread may hang in the name service for ever.

#include "agent/requests/user_lookup.hpp"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <optional>
#include <utility>
#include <vector>

#include "agent/support/log.hpp"
#include "platform/rules/name_service.hpp"

namespace {

using Lookups = std::vector<std::shared_ptr<UserLookup>>;

// Main thread only. Never destroyed: threads may outlive main.
Lookups& lookupsUnderWay() {
    static auto* const lookups = new Lookups();
    return *lookups;
}

timespec after(std::chrono::milliseconds time) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    const auto nanoseconds =
        end.tv_nsec + std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
    end.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
    end.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return end;
}

}  // namespace

std::shared_ptr<UserLookup> UserLookup::begin(const Rules& rules, std::uint32_t user,
                                              std::uint32_t group) {
    Lookups& underWay = lookupsUnderWay();
    std::erase_if(underWay, [](const auto& lookup) { return !lookup->isUnderWay(); });
    const auto same = std::find_if(underWay.begin(), underWay.end(), [&](const auto& lookup) {
        return lookup->m_user == user && lookup->m_group == group;
    });
    if (same != underWay.end()) {
        return *same;
    }
    if (underWay.size() >= kMostUnderWay) {
        return nullptr;
    }
    underWay.reserve(kMostUnderWay);
    auto lookup = std::make_shared<UserLookup>(rules, user, group);
    auto handed = std::make_unique<std::shared_ptr<UserLookup>>(lookup);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, runThread, handed.get()) != 0) {
        QUIL_LOG(LOG_LEVEL_WARNING, "No thread to look up user %u", user);
        return nullptr;
    }
    static_cast<void>(handed.release());  // the thread's now
    pthread_detach(thread);
    underWay.push_back(lookup);
    return lookup;
}

UserLookup::UserLookup(const Rules& rules, std::uint32_t user, std::uint32_t group)
    : m_rules(rules), m_user(user), m_group(group) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

UserLookup::~UserLookup() {
    pthread_cond_destroy(&m_condition);
}

void* UserLookup::runThread(void* handed) {
    pthread_setname_np(pthread_self(), "USER LOOKUP");
    const std::unique_ptr<std::shared_ptr<UserLookup>> lookup(
        static_cast<std::shared_ptr<UserLookup>*>(handed));
    (*lookup)->run();
    return nullptr;
}

void UserLookup::run() {
    Grants grants;
    State state = State::Failed;
    try {
        const std::optional<Person> person = lookUpPerson(m_user, m_group, m_rules.namedGroups());
        if (person) {
            grants = m_rules.grantsOf(*person);
            state = State::Done;
        }
    } catch (...) {
        // Without memory it failed; the next request tries again.
    }
    const QuilLock lock(m_mutex);
    m_grants = std::move(grants);
    m_state = state;
    pthread_cond_signal(&m_condition);
}

bool UserLookup::isUnderWay() {
    const QuilLock lock(m_mutex);
    return m_state == State::UnderWay;
}

void UserLookup::waitFor(std::chrono::milliseconds time) {
    const timespec end = after(time);
    flushLogEcho();
    const QuilLock lock(m_mutex);
    int result = 0;
    while (m_state == State::UnderWay && result != ETIMEDOUT) {
        result = pthread_cond_timedwait(&m_condition, m_mutex.native(), &end);
    }
}

UserLookup::State UserLookup::await() {
    if (!std::exchange(m_wasAwaited, true)) {
        waitFor(kPatience);
    }
    const QuilLock lock(m_mutex);
    return m_state;
}

Grants UserLookup::grants() {
    const QuilLock lock(m_mutex);
    return m_grants;
}
