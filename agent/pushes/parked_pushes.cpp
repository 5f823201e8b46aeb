// A queue for each application that has any.

#include "agent/pushes/parked_pushes.hpp"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "agent/connections/hang_up.hpp"
#include "agent/connections/push_descriptors.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/support/log.hpp"

namespace {

bool isDead(const QuilMessageNode& node, std::chrono::milliseconds patience) {
    const auto* push = dynamic_cast<const QuilPushMessage*>(node.getMessage());
    return push != nullptr && push->getSocket() != -1 && hasHungUpFor(push->getSocket(), patience);
}

}  // namespace

ParkedPushes* ParkedPushes::getInstance() {
    static ParkedPushes* const instance = new (std::nothrow) ParkedPushes();
    return instance;
}

bool ParkedPushes::hasAny(const std::string& appId) {
    const QuilLock lock(m_lock);
    return m_queues.count(appId) > 0;
}

void ParkedPushes::park(std::unique_ptr<QuilMessageNode> node) {
    insert({std::move(node), 0}, false);
}

void ParkedPushes::putBack(Parked parked) {
    insert(std::move(parked), true);
}

void ParkedPushes::insert(Parked parked, bool isFirst) {
    const int type = parked.node->getType();
    Parked givenUp;
    std::size_t waiting = 0;
    try {
        const std::string appId = parked.node->getMessage()->getName();
        const QuilLock lock(m_lock);
        givenUp = makeRoom(appId, &waiting);
        if (parked.number == 0) {
            parked.number = ++m_lastNumber;
        }
        Queue fresh;
        fresh.emplace_back();
        const auto [queue, isNew] = m_queues.emplace(appId, std::move(fresh));
        if (!isNew) {
            isFirst ? queue->second.emplace_front() : queue->second.emplace_back();
        }
        (isFirst ? queue->second.front() : queue->second.back()) = std::move(parked);
        ++m_size;
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING, "msgHandler: exception occurred when handling message [%d]",
                 type);
        closeConnectionOf(*parked.node);
    }
    if (givenUp.node != nullptr) {
        const QuilBaseMessage& push = *givenUp.node->getMessage();
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "parked: push id[%s] for app id[%s] given up: of %d that wait for their "
                 "application it is the oldest",
                 push.getId().c_str(), push.getName().c_str(), static_cast<int>(waiting));
        closeConnectionOf(*givenUp.node);
    }
}

ParkedPushes::Parked ParkedPushes::makeRoom(const std::string& appId, std::size_t* waiting) {
    const std::size_t most = pushDescriptors().mostParked;
    const std::size_t mostOfOne = std::clamp<std::size_t>(most / 2, 1, kMostOfOne);
    const auto own = m_queues.find(appId);
    if (own != m_queues.end() && own->second.size() >= mostOfOne) {
        *waiting = own->second.size();
        return takeFrom(own);
    }
    if (m_size < most) {
        return {};
    }
    *waiting = m_size;
    return takeFrom(
        std::min_element(m_queues.begin(), m_queues.end(), [](const auto& one, const auto& other) {
            return one.second.front().number < other.second.front().number;
        }));
}

ParkedPushes::Parked ParkedPushes::takeFirst(const std::string& appId) {
    const QuilLock lock(m_lock);
    const auto queue = m_queues.find(appId);
    return queue == m_queues.end() ? Parked{} : takeFrom(queue);
}

ParkedPushes::Parked ParkedPushes::takeFrom(std::map<std::string, Queue>::iterator queue) {
    Parked first = std::move(queue->second.front());
    queue->second.pop_front();
    --m_size;
    if (queue->second.empty()) {
        m_queues.erase(queue);
    }
    return first;
}

int ParkedPushes::letGoOfDead() {
    std::vector<Parked> dead;
    try {
        dead = takeDead(patienceWithHungUp());
    } catch (...) {
        return 0;  // no memory to collect them in
    }
    for (const Parked& parked : dead) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "parked: sender of push id[%s] hung up, let go",
                 parked.node->getMessage()->getId().c_str());
        closeConnectionOf(*parked.node);
    }
    return static_cast<int>(dead.size());
}

std::vector<ParkedPushes::Parked> ParkedPushes::takeDead(std::chrono::milliseconds patience) {
    std::vector<Parked> dead;
    const QuilLock lock(m_lock);
    dead.reserve(m_size);
    for (auto& [appId, queue] : m_queues) {
        const auto end = std::stable_partition(
            queue.begin(), queue.end(),
            [patience](const Parked& parked) { return !isDead(*parked.node, patience); });
        std::move(end, queue.end(), std::back_inserter(dead));
        queue.erase(end, queue.end());
    }
    m_size -= dead.size();
    std::erase_if(m_queues, [](const auto& entry) { return entry.second.empty(); });
    return dead;
}
