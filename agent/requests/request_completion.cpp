// Order matters wherever the two threads meet: the session is changed first, then the main loop is
// woken, then the application is told, so that whoever reacts to the news finds the session ready.

#include "agent/requests/request_completion.hpp"

#include "agent/clients/client_reply.hpp"
#include "agent/configuration/config_manager.hpp"
#include "agent/messages/enqueue.hpp"
#include "agent/sessions/save_and_wake.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "agent/support/log.hpp"
#include "agent/support/wake_up.hpp"

namespace {

DeregistrationOrigin originOf(const QuilBaseMessage& message) {
    const auto* completion = dynamic_cast<const QuilDestroyChannelCompleteMessage*>(&message);
    return completion == nullptr ? DeregistrationOrigin{} : completion->getOrigin();
}

}  // namespace

void sendCallbackResponse(std::unique_ptr<QuilBaseMessage> message) {
    const std::string appId = message->getName();
    if (QuilSessionManager::getInstance()->getSessionByAppId(appId) == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "Cannot find [%s] in session map. Existing error [%d]",
                 appId.c_str(), message->getErrorCode());
        message->overwriteErrorCode(RESULT_INTERNAL_FAILURE);
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "%s: Sending data back to app id[%s] client id[%s] err[%d]",
             message->getCallbackName().c_str(), appId.c_str(), message->getClientId().c_str(),
             message->getErrorCode());
    sendMessage(std::move(message));
}

void addCreateChannelCompletedMessage(QuilServerRegMessage& request) {
    const std::string appId = request.getName();
    QUIL_LOG(LOG_LEVEL_DEBUG, "addCreateChannelCompletedMessage: provider app id [%s]",
             appId.c_str());
    auto completion = std::make_unique<QuilCreateChannelCompleteMessage>(appId, request.getId(),
                                                                         request.getClientId());
    completion->setLife(request.getLife());
    bool isSuccess = false;
    if (request.getErrorCode() != RESULT_OK) {
        completion->setErrorCode(request.getErrorCode());
    } else {
        QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
        if (session != nullptr) {
            session->enterState(makeState<QuilRegisterState>());
            const std::string pin = QuilConfigManager::getInstance()->getDevicePin();
            completion->setToken(pin);
            session->setToken(pin);
            isSuccess = true;
        } else {
            QUIL_LOG(LOG_LEVEL_WARNING,
                     "addCreateChannelCompletedMessage: provider App Id[%s] not found",
                     appId.c_str());
            request.setErrorCode(RESULT_NO_SESSION);
        }
    }
    wakeMainLoop();
    // Code 0 in any case, kept on purpose: applications know a failed creation by its empty token,
    // and have never been sent an "err" here.
    addMessage(RESULT_OK, MESSAGE_CREATE_CHANNEL_COMPLETE, appId, request.getId(),
               request.getClientId(), std::move(completion));
    if (isSuccess) {
        const int saved = QuilDataManager::getInstance()->save();
        QUIL_LOG(LOG_LEVEL_INFO, "Save to persistent memory returns %d", saved);
    }
}

void addDestroyChannelCompletedMessage(const QuilServerRegMessage& request) {
    auto completion = std::make_unique<QuilDestroyChannelCompleteMessage>(
        request.getName(), request.getId(), request.getClientId());
    completion->setOrigin(request.getOrigin());
    completion->setLife(request.getLife());
    addMessage(request.getErrorCode(), MESSAGE_DESTROY_CHANNEL_COMPLETE, request.getName(),
               request.getId(), request.getClientId(), std::move(completion));
}

void processDestroyChannelCallback(std::unique_ptr<QuilBaseMessage> message) {
    const std::string appId = message->getName();
    QUIL_LOG(LOG_LEVEL_DEBUG, "processDestroyChannelCallback: app id [%s] error code [%d]",
             appId.c_str(), message->getErrorCode());
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "Cannot find [%s] in session map. Existing error [%d]",
                 appId.c_str(), message->getErrorCode());
        message->overwriteErrorCode(RESULT_INTERNAL_FAILURE);
        sendMessage(std::move(message));
        return;
    }
    const DeregistrationOrigin origin = originOf(*message);
    // A session of another SIM may have a channel of its own again by now, but its application
    // still has to hear what became of the old one.
    const bool isSimChanged = session->isSimChanged() || origin.isSimChange;
    QUIL_LOG(LOG_LEVEL_DEBUG, "processDestroyChannelCallback: is_sim_changed [%d]",
             isSimChanged ? 1 : 0);
    if (isSimChanged) {
        message->setCallbackName("onSimChange");
    }
    const int port = session->getPort().getPort();
    const int socket = session->getPort().getSocket();
    bool isOutdated = session->hasNewerChannelThan(origin.channelRequests);
    if (message->getErrorCode() == RESULT_OK) {
        isOutdated = !session->endChannel(origin.channelRequests);
    }
    sendMessage(std::move(message));
    QUIL_LOG(LOG_LEVEL_INFO,
             "processDestroyChannelCallback: destroy Channel: app id[%s] port number[%d] "
             "socket/fd [%d] isSimChange[%d]",
             appId.c_str(), port, socket, isSimChanged ? 1 : 0);
    if (!isOutdated) {
        cleanup();
    }
}
