// One line per cell of the table in the header. A cell that is missing here is one that the base
// refuses.

#include "agent/sessions/states/session_states.hpp"

#include "agent/sessions/session.hpp"

namespace {

template <typename State>
void moveTo(const QuilBaseState* current, QuilSession& session) {
    QuilBaseState::changeState(current, session, makeState<State>());
}

}  // namespace

QuilIdleState::QuilIdleState() : QuilBaseState("Idle", STATE_IDLE) {}
void QuilIdleState::doCreate(QuilSession& session) {
    moveTo<QuilCreateState>(this, session);
}
void QuilIdleState::doDelete(QuilSession& /*session*/) {}
void QuilIdleState::doRegister(QuilSession& /*session*/) {}

QuilCreateState::QuilCreateState() : QuilBaseState("Create", STATE_CREATE) {}
void QuilCreateState::doCreate(QuilSession& /*session*/) {}
void QuilCreateState::doDelete(QuilSession& session) {
    moveTo<QuilDeleteState>(this, session);
}
void QuilCreateState::doRegister(QuilSession& session) {
    moveTo<QuilRegisterState>(this, session);
}

QuilDeleteState::QuilDeleteState() : QuilBaseState("Delete", STATE_DELETE) {}
void QuilDeleteState::doCreate(QuilSession& /*session*/) {}
void QuilDeleteState::doDelete(QuilSession& /*session*/) {}
void QuilDeleteState::doRegister(QuilSession& /*session*/) {}

QuilRegisterState::QuilRegisterState() : QuilBaseState("Register", STATE_REGISTER) {}
void QuilRegisterState::doDelete(QuilSession& session) {
    moveTo<QuilTerminateState>(this, session);
}
void QuilRegisterState::doUnregister(QuilSession& session) {
    moveTo<QuilUnregisterState>(this, session);
    // This object is gone; only the session may be used.
    session.stopListenOnPort();
}

QuilUnregisterState::QuilUnregisterState() : QuilBaseState("Unregister", STATE_UNREGISTER) {}
void QuilUnregisterState::doCreate(QuilSession& session) {
    moveTo<QuilCreateState>(this, session);
}
void QuilUnregisterState::doDelete(QuilSession& session) {
    moveTo<QuilDeleteState>(this, session);
}
void QuilUnregisterState::doRegister(QuilSession& session) {
    moveTo<QuilRegisterState>(this, session);
}

QuilTerminateState::QuilTerminateState() : QuilBaseState("Terminate", STATE_TERMINATE) {}
void QuilTerminateState::doCreate(QuilSession& session) {
    moveTo<QuilRegisterState>(this, session);
}
void QuilTerminateState::doDelete(QuilSession& /*session*/) {}
void QuilTerminateState::doRegister(QuilSession& session) {
    moveTo<QuilRegisterState>(this, session);
}

QuilSimChangeState::QuilSimChangeState() : QuilBaseState("SimChange", STATE_SIM_CHANGE) {}
void QuilSimChangeState::doUnregister(QuilSession& session) {
    moveTo<QuilUnregisterState>(this, session);
}
