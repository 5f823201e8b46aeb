// Requests change the session and leave the rest to the queue, so that the main thread never waits
// for a server.

#include "agent/requests/session_requests.hpp"

#include <memory>

#include "agent/clients/client_reply.hpp"
#include "agent/messages/enqueue.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/sessions/save_and_wake.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "agent/support/log.hpp"

namespace {

QuilSession* findSession(const std::string& appId) {
    return QuilSessionManager::getInstance()->getSessionByAppId(appId);
}

// Gives up the registration that the session has, so that the next one starts from scratch.
void revertToCreateState(QuilSession& session) {
    session.stopListenOnPort();
    QUIL_LOG(LOG_LEVEL_INFO, "Registered state, revert back to Create state.");
    session.enterState(makeState<QuilCreateState>());
    if (session.hasPort() || session.getPort().getSocket() != -1) {
        // It was in Terminate, where stopping does nothing. Also when it could not listen: a port
        // of the registration before must not be saved with the next one.
        session.stopListenOnPort();
    }
    cleanup();
}

// The failures of "destroyChannel" are answered on the spot, past the queue. Kept on purpose: what
// is answered past it is also all in which 10100 reaches an application.
void refuseDestroy(int code, const std::string& appId, const std::string& id,
                   const std::string& clientId) {
    auto message = std::make_unique<QuilDestroyChannelCompleteMessage>(appId, id, clientId);
    message->setErrorCode(code);
    sendMessage(std::move(message));
}

}  // namespace

void quilCreateSession(const std::string& appId, const std::string& id,
                       const std::string& clientId) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilCreateSession Called\n");
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilCreateSession provider id [%s] client id [%s]", appId.c_str(),
             clientId.c_str());
    auto session = std::make_unique<QuilSession>(appId, clientId);
    const int added = QuilSessionManager::getInstance()->addSession(session);
    addReplyMessage(added != 0 ? RESULT_OK : RESULT_INTERNAL_FAILURE,
                    MESSAGE_CREATE_SESSION_COMPLETE, appId, id, clientId);
}

void quilCreateChannel(const std::string& appId, const std::string& id, const std::string& clientId,
                       const std::string& ppgUrl) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilCreateChannel Called with %s %s\n", appId.c_str(),
             ppgUrl.c_str());
    QuilSession* session = findSession(appId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "quilCreateChannel: session for app id [%s] not found.",
                 appId.c_str());
        addReplyMessage(RESULT_NO_SESSION, MESSAGE_CREATE_CHANNEL_COMPLETE, appId, id, clientId);
        return;
    }
    if (ppgUrl.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING, "quilCreateChannel: empty ppgUrl.");
        addReplyMessage(RESULT_EMPTY_PPG_URL, MESSAGE_CREATE_CHANNEL_COMPLETE, appId, id, clientId);
        return;
    }
    session->countChannelRequest();
    if (session->isRegistered()) {
        revertToCreateState(*session);
    }
    session->setPpgUrl(ppgUrl);
    addMessage(RESULT_OK, MESSAGE_SERVER_REGISTER, appId, id, clientId,
               std::make_unique<QuilServerRegMessage>(appId, id, clientId, ppgUrl));
}

void quilDestroyChannel(const std::string& appId, const std::string& id,
                        const std::string& clientId, QuilSession* session) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilDestroyChannel Called app id [%s]\n", appId.c_str());
    const bool isSimChange = session != nullptr;
    if (!isSimChange) {
        session = findSession(appId);
    }
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "quilDestroyChannel: session for app id [%s] not found.\n",
                 appId.c_str());
        refuseDestroy(RESULT_NO_SESSION, appId, id, clientId);
        return;
    }
    if (session->isCreated()) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "quilDestroyChannel: found session but not registered!");
        refuseDestroy(RESULT_NOT_REGISTERED, appId, id, clientId);
        return;
    }
    if (!session->isRegistered()) {
        refuseDestroy(RESULT_WRONG_STATE, appId, id, clientId);
        return;
    }
    auto request =
        std::make_unique<QuilServerRegMessage>(appId, id, clientId, session->getPpgUrl());
    request->setRegister(false);
    request->setMessageType(MESSAGE_SERVER_DEREGISTER);
    request->setOrigin(
        {.channelRequests = session->getChannelRequests(), .isSimChange = isSimChange});
    addMessage(RESULT_OK, MESSAGE_SERVER_DEREGISTER, appId, id, clientId, std::move(request));
}

void quilRefuseDestroyChannel(const std::string& appId, const std::string& id,
                              const std::string& clientId) {
    refuseDestroy(RESULT_NO_SESSION, appId, id, clientId);
}

void quilQueryChannel(const std::string& appId, const std::string& id,
                      const std::string& clientId) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilQueryChannel Called app id [%s]", appId.c_str());
    const QuilSession* session = findSession(appId);
    if (session == nullptr) {
        quilRefuseQueryChannel(appId, id, clientId);
        return;
    }
    auto message = std::make_unique<QuilQueryChannelCompleteMessage>(appId, id, clientId);
    message->setChannel(session->getChannel());
    sendMessage(std::move(message));
}

void quilRefuseQueryChannel(const std::string& appId, const std::string& id,
                            const std::string& clientId) {
    auto message = std::make_unique<QuilQueryChannelCompleteMessage>(appId, id, clientId);
    message->setErrorCode(RESULT_NO_SESSION);
    sendMessage(std::move(message));
}

void quilRegisterToLaunch(const std::string& appId, const std::string& id,
                          const std::string& clientId, const std::string& launchString) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilRegisterToLaunch Called app id [%s]\n", appId.c_str());
    int code = RESULT_OK;
    QuilSession* session = findSession(appId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "quilRegisterToLaunch: session for app id [%s] not found.\n",
                 appId.c_str());
        code = RESULT_NO_SESSION;
    } else if (launchString.empty()) {
        code = RESULT_EMPTY_LAUNCH_STRING;
    } else {
        if (launchString != session->getLaunchString()) {
            session->setLaunchString(launchString);
            const int saved = QuilDataManager::getInstance()->save();
            QUIL_LOG(LOG_LEVEL_INFO, "quilRegisterToLaunch: Save to persistent memory returns %d",
                     saved);
        }
        QUIL_LOG(LOG_LEVEL_DEBUG, "quilRegisterToLaunch: launchString [%s]",
                 session->getLaunchString().c_str());
    }
    addReplyMessage(code, MESSAGE_RESPONSE, appId, id, clientId);
}

void quilUnregisterToLaunch(const std::string& appId, const std::string& id,
                            const std::string& clientId) {
    // The register operation's texts, also below: one search finds both.
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilRegisterToLaunch Called app id [%s]\n", appId.c_str());
    int code = RESULT_OK;
    QuilSession* session = findSession(appId);
    if (session != nullptr) {
        session->setLaunchString("");
        const int saved = QuilDataManager::getInstance()->save();
        QUIL_LOG(LOG_LEVEL_INFO, "quilUnregisterToLaunch: Save to persistent memory returns %d",
                 saved);
    } else {
        QUIL_LOG(LOG_LEVEL_WARNING, "quilRegisterToLaunch: session for app id [%s] not found.\n",
                 appId.c_str());
        code = RESULT_NO_SESSION;
    }
    addReplyMessage(code, MESSAGE_RESPONSE, appId, id, clientId);
}
