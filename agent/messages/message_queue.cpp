// One condition, signalled once per node that the reader waits for. The reader tests for emptiness
// after every wake, so spurious wakes are harmless. Nothing is logged or flushed under the lock: it
// is a leaf. Whoever takes a node in the reader's place logs what the reader would have: the log
// tells what happens to a message, not on which thread.

#include "agent/messages/message_queue.hpp"

#include <utility>

#include "agent/connections/connection.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/support/log.hpp"
#include "agent/support/wake_up.hpp"

namespace {

// Of a thread that goes on to takeHere(); and whether it has handled a node there.
thread_local bool t_keepsReaderWaiting = false;
thread_local bool t_hasHandled = false;

void logPop() {
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilMessageManager::pop called.\n");
}

void logWait(int result) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilMessageManager::pop: done pthread_cond_wait rc[%d]", result);
    if (result != 0) {
        QUIL_LOG(LOG_LEVEL_ERROR, "pthread_cond_wait: rc[%d]", result);
    }
}

void logNode(int size) {
    QUIL_LOG(LOG_LEVEL_INFO, "pop: size of queue %d\n", size);
}

bool isPush(const QuilMessageNode& node) {
    return node.getType() == MESSAGE_PUSH;
}

// Whether there are many; then whoever takes them away will find the flag. They may have gone
// meanwhile, perhaps before anybody could see it.
bool holdsBack(const std::atomic<int>& count, int many, std::atomic<bool>* isHeldBack) {
    if (count < many) {
        return false;
    }
    *isHeldBack = true;
    if (count >= many) {
        return true;
    }
    *isHeldBack = false;
    return false;
}

}  // namespace

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
        m_requests += isPush(*m_nodes.back()) ? 0 : 1;
        isAwaited = m_waiting > 0 && !m_isHandledHere && !t_keepsReaderWaiting;
    }
    // Behind the lock, so that the reader does not wake up only to wait for it.
    if (isAwaited) {
        pthread_cond_signal(&m_condition);
    }
    return true;
}

bool QuilMessageManager::isCrowded() {
    return holdsBack(m_size, kManyNodes, &m_isLoopHeldBack);
}

bool QuilMessageManager::hasManyRequests() {
    return holdsBack(m_requests, kManyRequests, &m_areRequestsHeldBack);
}

// `size` is that of before, as the log shows it.
void QuilMessageManager::wakeLoopIfRoom(int size) {
    const bool hasRoom = size <= kFewNodes && m_isLoopHeldBack.exchange(false);
    const bool hasRoomForRequests =
        m_requests < kFewRequests && m_areRequestsHeldBack.exchange(false);
    if (hasRoom || hasRoomForRequests) {
        wakeMainLoop();
    }
}

std::unique_ptr<QuilMessageNode> QuilMessageManager::pop() {
    {
        const QuilLock lock(m_mutex);
        m_isHandledByReader = false;
    }
    logPop();
    int size = 0;
    std::unique_ptr<QuilMessageNode> node = take(&size);
    while (node == nullptr) {
        flushLogEcho();
        if (const std::optional<int> result = wait()) {
            logWait(*result);
        }
        node = take(&size);
    }
    logNode(size);
    wakeLoopIfRoom(size);
    return node;
}

std::unique_ptr<QuilMessageNode> QuilMessageManager::take(int* size) {
    const QuilLock lock(m_mutex);
    *size = static_cast<int>(m_nodes.size());
    if (m_nodes.empty() || m_isHandledHere) {
        return nullptr;
    }
    m_isHandledByReader = true;
    return takeFront();
}

std::unique_ptr<QuilMessageNode> QuilMessageManager::takeFront() {
    std::unique_ptr<QuilMessageNode> node = std::move(m_nodes.front());
    m_nodes.pop_front();
    m_size = static_cast<int>(m_nodes.size());
    m_requests -= isPush(*node) ? 0 : 1;
    return node;
}

std::optional<int> QuilMessageManager::wait() {
    const QuilLock lock(m_mutex);
    if (!m_nodes.empty() && !m_isHandledHere) {
        return std::nullopt;  // it came since take() looked, and its signal reached nobody
    }
    ++m_waiting;
    const int result = pthread_cond_wait(&m_condition, m_mutex.native());
    --m_waiting;
    return result;
}

void QuilMessageManager::keepReaderWaiting() {
    t_keepsReaderWaiting = true;
}

std::unique_ptr<QuilMessageNode> QuilMessageManager::takeHere(
    bool (*isQuick)(const QuilMessageNode&)) {
    int size = 0;
    bool isAwaited = false;
    std::unique_ptr<QuilMessageNode> node;
    {
        const QuilLock lock(m_mutex);
        size = static_cast<int>(m_nodes.size());
        // A reader that is not in its wait is about to look.
        const bool isReaderIdle = m_waiting > 0 && !m_isHandledByReader && !m_isHandledHere;
        if (size > 0 && isReaderIdle && isQuick(*m_nodes.front())) {
            m_isHandledHere = true;
            node = takeFront();
        }
        isAwaited = node == nullptr && size > 0 && isReaderIdle;
    }
    if (node == nullptr) {
        t_keepsReaderWaiting = t_hasHandled = false;
        if (isAwaited) {
            pthread_cond_signal(&m_condition);
        }
        return nullptr;
    }
    if (!t_hasHandled) {
        logWait(0);  // in which the reader is
    }
    logNode(size);
    wakeLoopIfRoom(size);
    return node;
}

void QuilMessageManager::handledHere() {
    {
        const QuilLock lock(m_mutex);
        m_isHandledHere = false;
    }
    t_hasHandled = true;
    logPop();
}
