// Takes what waits in the queue, in its order, and never waits for anything else: exchanges with
// push data servers, and what follows for their applications, go on beside it. One node is handled
// at a time, on whichever thread.

#include "agent/process/handler_thread.hpp"

#include <pthread.h>

#include <memory>
#include <utility>

#include "agent/messages/message_queue.hpp"
#include "agent/process/dispatch.hpp"
#include "agent/process/exchanges.hpp"
#include "agent/pushes/parked_pushes.hpp"
#include "agent/pushes/push_intake.hpp"
#include "agent/support/log.hpp"

namespace {

// An event that took so long has waited for the object service.
constexpr std::chrono::milliseconds kLong{100};

void handleNext(std::unique_ptr<QuilMessageNode> node) {
    try {
        if (!QuilExchanges::getInstance()->take(&node)) {
            handleNode(&node);
        }
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING, "msgHandler: a message was lost for want of memory");
        if (node != nullptr) {
            closeConnectionOf(*node);
        }
    }
}

[[noreturn]] void* runHandler(void* /*unused*/) {
    pthread_setname_np(pthread_self(), "MSG HANDLER");
    for (;;) {
        handleNext(QuilMessageManager::getInstance()->pop());
    }
}

// Whether handling the node is one message to the object service and no more: no disk, no other
// machine, and nothing that comes in numbers.
bool isQuick(const QuilMessageNode& node) {
    switch (node.getType()) {
        case MESSAGE_PUSH:
        case MESSAGE_RESPONSE:
            return true;
        case MESSAGE_CREATE_SESSION_COMPLETE:
            return ParkedPushes::getInstance()->isEmpty();  // which would be due after it
        default:
            return false;
    }
}

}  // namespace

HandlingHere::HandlingHere() {
    if (QuilMessageManager* queue = QuilMessageManager::getInstance()) {
        queue->keepReaderWaiting();
    }
}

HandlingHere::~HandlingHere() {
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    if (queue == nullptr) {
        return;
    }
    while (std::unique_ptr<QuilMessageNode> node = queue->takeHere(isQuick)) {
        handleNext(std::move(node));
        queue->handledHere();
    }
    const auto taken = std::chrono::steady_clock::now() - m_begin;
    if (taken >= kLong) {
        postponePushIntake(taken);
    }
}

int msgHandlerInit() {
    if (QuilMessageManager::getInstance() == nullptr || QuilExchanges::getInstance() == nullptr ||
        ParkedPushes::getInstance() == nullptr) {
        return 0;
    }
    pthread_t thread;
    if (pthread_create(&thread, nullptr, runHandler, nullptr) != 0) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Init message handler thread failed");
        return 0;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "msgHandlerInit: init Message Handler done.");
    return 1;
}
