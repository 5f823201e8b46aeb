// One condition, signalled once per node that the reader waits for. The reader tests for emptiness
// after every wake, so spurious wakes are harmless. Nothing is logged or flushed under the lock: it
// is a leaf.

#include "agent/messages/message_queue.hpp"

#include "agent/connections/connection.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/support/log.hpp"
#include "agent/support/wake_up.hpp"

void closeConnectionOf(const QuilMessageNode& node) {
    const auto* push = dynamic_cast<const QuilPushMessage*>(node.getMessage());
    if (push != nullptr && push->getSocket() != -1) {
        serverIfClose(push->getSocket());
    }
}

QuilMessageManager* QuilMessageManager::getInstance() {
    // The queue itself allocates, so asking for null instead of an exception would not be enough.
    static QuilMessageManager* const instance = []() -> QuilMessageManager* {
        try {
            return new QuilMessageManager();
        } catch (...) {
            return nullptr;
        }
    }();
    return instance;
}

QuilMessageManager::QuilMessageManager() {
    pthread_cond_init(&m_condition, nullptr);
}

QuilMessageManager::~QuilMessageManager() {
    pthread_cond_destroy(&m_condition);
}

int QuilMessageManager::push(std::unique_ptr<QuilMessageNode> node) {
    if (node == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "QuilMessageManager::push -- attempt to add NULL message node");
        return 0;
    }
    if (!append(&node)) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilMessageManager::push: exception occurred when adding message node [%d]",
                 node->getType());
        closeConnectionOf(*node);
    }
    const int result = node == nullptr ? 1 : 0;
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilMessageManager::push: return_code = %d", result);
    return result;
}

bool QuilMessageManager::append(std::unique_ptr<QuilMessageNode>* node) {
    bool isAwaited = false;
    {
        const QuilLock lock(m_mutex);
        try {
            m_nodes.push_back(std::move(*node));
        } catch (...) {
            return false;
        }
        m_size = static_cast<int>(m_nodes.size());
        isAwaited = m_waiting > 0;
    }
    // Behind the lock, so that the reader does not wake up only to wait for it.
    if (isAwaited) {
        pthread_cond_signal(&m_condition);
    }
    return true;
}

bool QuilMessageManager::isCrowded() {
    if (m_size < kManyNodes) {
        return false;
    }
    m_isLoopHeldBack = true;
    if (m_size >= kManyNodes) {
        return true;
    }
    m_isLoopHeldBack = false;  // they went meanwhile, perhaps before anybody could see the flag
    return false;
}

std::unique_ptr<QuilMessageNode> QuilMessageManager::pop() {
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilMessageManager::pop called.\n");
    int size = 0;
    std::unique_ptr<QuilMessageNode> node = take(&size);
    while (node == nullptr) {
        flushLogEcho();
        if (const std::optional<int> result = wait()) {
            QUIL_LOG(LOG_LEVEL_DEBUG, "QuilMessageManager::pop: done pthread_cond_wait rc[%d]",
                     *result);
            if (*result != 0) {
                QUIL_LOG(LOG_LEVEL_ERROR, "pthread_cond_wait: rc[%d]", *result);
            }
        }
        node = take(&size);
    }
    QUIL_LOG(LOG_LEVEL_INFO, "pop: size of queue %d\n", size);
    if (size <= kFewNodes && m_isLoopHeldBack.exchange(false)) {
        wakeMainLoop();
    }
    return node;
}

std::unique_ptr<QuilMessageNode> QuilMessageManager::take(int* size) {
    const QuilLock lock(m_mutex);
    *size = static_cast<int>(m_nodes.size());
    if (m_nodes.empty()) {
        return nullptr;
    }
    std::unique_ptr<QuilMessageNode> node = std::move(m_nodes.front());
    m_nodes.pop_front();
    m_size = static_cast<int>(m_nodes.size());
    return node;
}

std::optional<int> QuilMessageManager::wait() {
    const QuilLock lock(m_mutex);
    if (!m_nodes.empty()) {
        return std::nullopt;  // it came since take() looked, and its signal reached nobody
    }
    ++m_waiting;
    const int result = pthread_cond_wait(&m_condition, m_mutex.native());
    --m_waiting;
    return result;
}
