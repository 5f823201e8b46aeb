// Takes what waits in the queue, in its order, and never waits for anything else: exchanges with
// push data servers, and what follows for their applications, go on beside it.

#include "agent/process/handler_thread.hpp"

#include <pthread.h>

#include <memory>

#include "agent/messages/message_queue.hpp"
#include "agent/process/dispatch.hpp"
#include "agent/process/exchanges.hpp"
#include "agent/pushes/parked_pushes.hpp"
#include "agent/support/log.hpp"

namespace {

[[noreturn]] void* runHandler(void* /*unused*/) {
    pthread_setname_np(pthread_self(), "MSG HANDLER");
    for (;;) {
        std::unique_ptr<QuilMessageNode> node = QuilMessageManager::getInstance()->pop();
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
}

}  // namespace

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
