// The session keeps the connection under the push id; it writes and closes.

#include "agent/pushes/push_answer.hpp"

#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"

namespace {

void acknowledge(const std::string& appId, const std::string& pushId, bool isAccepted) {
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
    if (session == nullptr) {
        // One text for both answers: one search finds both.
        QUIL_LOG(LOG_LEVEL_WARNING, "quilAccept: session for app id [%s] not found.",
                 appId.c_str());
        return;
    }
    session->acknowledgePush(pushId, isAccepted);
}

}  // namespace

void quilAccept(const std::string& appId, const std::string& pushId,
                const std::string& /*clientId*/) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilAccept Called app id [%s]", appId.c_str());
    acknowledge(appId, pushId, true);
}

void quilRejectPush(const std::string& appId, const std::string& pushId,
                    const std::string& /*clientId*/) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilRejectPush Called app id [%s]", appId.c_str());
    acknowledge(appId, pushId, false);
}
