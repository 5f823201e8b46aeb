// The refusals, and the one transition that every state shares.

#include "agent/sessions/states/base_state.hpp"

#include <utility>

#include "agent/sessions/session.hpp"
#include "agent/support/log.hpp"

QuilBaseState::QuilBaseState(std::string name, int type) : m_name(std::move(name)), m_type(type) {}

void QuilBaseState::doCreate(QuilSession& /*session*/) {
    QUIL_LOG(LOG_LEVEL_DEBUG, " already created.");
}

void QuilBaseState::doDelete(QuilSession& /*session*/) {
    QUIL_LOG(LOG_LEVEL_DEBUG, " already deleted.");
}

void QuilBaseState::doRegister(QuilSession& /*session*/) {
    QUIL_LOG(LOG_LEVEL_DEBUG, " already registered.");
}

void QuilBaseState::doUnregister(QuilSession& /*session*/) {
    QUIL_LOG(LOG_LEVEL_DEBUG, " already unregistered.");
}

void QuilBaseState::changeState(const QuilBaseState* current, QuilSession& session,
                                std::unique_ptr<QuilBaseState> next) {
    const std::string appId = session.getProviderAppId();
    if (next == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "Provider id [%s]: problem transition from current state [?] to next state[?]",
                 appId.c_str());
        return;
    }
    QUIL_LOG(LOG_LEVEL_INFO, " Provider app id [%s] current state[%s] next state[%s]",
             appId.c_str(), current == nullptr ? "" : current->getStateName().c_str(),
             next->getStateName().c_str());
    // What setState gives back is `current`; it goes at the end of this statement, after the new
    // state stands.
    session.setState(std::move(next)).reset();
}
