// Who closes the connection of a push: this unit, until addPushSocket has taken it; from then on
// the session. A message never does, since copies of it share the number.

#include "agent/pushes/push_delivery.hpp"

#include <utility>

#include "agent/clients/client_reply.hpp"
#include "agent/connections/connection.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"

namespace {

// Closes the push's connection unless the session has taken it, also when memory runs out.
class ConnectionKeeper {
  public:
    explicit ConnectionKeeper(int socket) : m_socket(socket) {}
    ~ConnectionKeeper() {
        if (m_socket != -1) {
            serverIfClose(m_socket);
        }
    }
    ConnectionKeeper(const ConnectionKeeper&) = delete;
    ConnectionKeeper& operator=(const ConnectionKeeper&) = delete;

    int release() { return std::exchange(m_socket, -1); }

  private:
    int m_socket;
};

}  // namespace

void pushNotification(std::unique_ptr<QuilPushMessage> push) {
    ConnectionKeeper connection(push->getSocket());
    if (push->hasError()) {
        QUIL_LOG(LOG_LEVEL_INFO, "pushNotification: id[%s] error code[%d]", push->getId().c_str(),
                 push->getErrorCode());
        return;
    }
    const std::string appId = push->getName();
    QUIL_LOG(LOG_LEVEL_DEBUG, "pushNotification: app id[%s]\n", appId.c_str());
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "Cannot find [%s] in session map", appId.c_str());
        return;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG,
             "pushNotification: Sending data back to app id [%s] port [%d] client id[%s]\n",
             appId.c_str(), session->getPort().getPort(), session->getClientObjectId().c_str());
    const bool isStored =
        push->getSocket() != -1 && session->addPushSocket(push->getId(), connection.release()) != 0;
    if (session->isRegistered()) {
        sendMessage(std::move(push));
    } else if (isStored) {
        session->deletePushSocket(push->getId());
    }
}
