// Who closes the connection of a push: this unit, until addPushSocket has taken it; from then on
// the session. A message never does, since copies of it share the number.

#include "agent/pushes/push_delivery.hpp"

#include <utility>

#include "agent/clients/client_reply.hpp"
#include "agent/connections/connection.hpp"
#include "agent/pushes/dead_senders.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"
#include "agent/support/service_life.hpp"

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

// Whether its client id means somebody.
bool isAddressed(const QuilPushMessage& push) {
    return push.getLife() == serviceLife() && !push.getClientId().empty();
}

// Addresses the push to the client that its application has now. False when it has none.
bool addressAnew(const QuilSession& session, QuilPushMessage* push) {
    const int life = serviceLife();  // asked first: an id that is read after it is not older
    const std::string clientId = session.getClientObjectId();
    if (clientId.empty()) {
        return false;
    }
    push->setClientId(clientId);
    push->setLife(life);
    return true;
}

// Tells the application. When memory runs out before that, a connection that the session has taken
// is closed: nobody would ever answer it.
SendResult notify(QuilSession* session, std::unique_ptr<QuilPushMessage> push,
                  const std::string& pushId, bool isStored) {
    try {
        return sendMessage(std::move(push));
    } catch (...) {
        if (isStored) {
            session->deletePushSocket(pushId);
        }
        throw;
    }
}

}  // namespace

PushOutcome pushNotification(std::unique_ptr<QuilPushMessage> push) {
    ConnectionKeeper connection(push->getSocket());
    if (push->hasError()) {
        QUIL_LOG(LOG_LEVEL_INFO, "pushNotification: id[%s] error code[%d]", push->getId().c_str(),
                 push->getErrorCode());
        return PushOutcome::Done;
    }
    lookForDeadSenders();
    const std::string appId = push->getName();
    QUIL_LOG(LOG_LEVEL_DEBUG, "pushNotification: app id[%s]\n", appId.c_str());
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "Cannot find [%s] in session map", appId.c_str());
        return PushOutcome::Done;
    }
    if (!isAddressed(*push) && !addressAnew(*session, push.get()) && session->isRegistered()) {
        connection.release();
        return PushOutcome::AwaitsClient;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG,
             "pushNotification: Sending data back to app id [%s] port [%d] client id[%s]\n",
             appId.c_str(), session->getPort().getPort(), session->getClientObjectId().c_str());
    const std::string pushId = push->getId();
    const int socket = push->getSocket();
    const bool isStored = socket != -1 && session->addPushSocket(pushId, connection.release()) != 0;
    if (!session->isRegistered()) {
        if (isStored) {
            session->deletePushSocket(pushId);
        }
        return PushOutcome::Done;
    }
    if (notify(session, std::move(push), pushId, isStored) != SendResult::ServiceGone) {
        return PushOutcome::Done;
    }
    // A connection that is gone by now, closed for whatever reason, has told its sender.
    const bool isOurs = socket == -1 || (isStored && session->giveBackPushSocket(pushId, socket));
    return isOurs ? PushOutcome::AwaitsClient : PushOutcome::Done;
}
