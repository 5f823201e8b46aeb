// Takes what waits in the queue, in its order, and never waits for anything else: exchanges with
// push data servers, and what follows for their applications, go on beside it.

#include "agent/process/handler_thread.hpp"

#include <pthread.h>

#include <memory>
#include <string>
#include <utility>

#include "agent/messages/message_queue.hpp"
#include "agent/process/dispatch.hpp"
#include "agent/process/exchanges.hpp"
#include "agent/support/log.hpp"

namespace {

void takeOver(std::unique_ptr<QuilMessageNode>* node) {
    QuilExchanges* exchanges = QuilExchanges::getInstance();
    if (exchanges->take(node)) {
        return;
    }
    const bool isBack = (*node)->getType() == MESSAGE_CREATE_SESSION_COMPLETE;
    const std::string appId = isBack ? (*node)->getMessage()->getName() : "";
    if (handleNode(node) == NodeOutcome::AwaitsClient) {
        exchanges->park(std::move(*node));
    } else if (isBack) {
        exchanges->unpark(appId);
    }
}

[[noreturn]] void* runHandler(void* /*unused*/) {
    pthread_setname_np(pthread_self(), "MSG HANDLER");
    for (;;) {
        std::unique_ptr<QuilMessageNode> node = QuilMessageManager::getInstance()->pop();
        try {
            takeOver(&node);
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
    if (QuilMessageManager::getInstance() == nullptr || QuilExchanges::getInstance() == nullptr) {
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
