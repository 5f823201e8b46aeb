// The seven states of a session, and what each event does in them:
//
//     state (type)     create       delete        register      unregister
//     Idle (0)         -> Create    ignored       ignored       refused
//     Create (1)       ignored      -> Delete     -> Register   refused
//     Delete (2)       ignored      ignored       ignored       refused
//     Register (3)     refused      -> Terminate  refused       -> Unregister
//     Unregister (4)   -> Create    -> Delete     -> Register   refused
//     Terminate (5)    -> Register  ignored       -> Register   refused
//     SimChange (6)    refused      refused       refused       -> Unregister
//
// Unregister out of Register also stops listening; no other transition touches the session.
//
// Ignored: no line, no change. Refused: the base state's line, no change. Kept on purpose:
//  - no event leads out of Delete: such a session is only there to be removed;
//  - deleting a registered session keeps its registration: in Terminate it goes on listening;
//  - a session that was saved with another SIM (SimChange) can only be unregistered.

#pragma once

#include <memory>
#include <new>

#include "agent/sessions/states/base_state.hpp"

// A new state; null without memory, which a transition logs as no next state.
template <typename State>
std::unique_ptr<QuilBaseState> makeState() {
    return std::unique_ptr<QuilBaseState>(new (std::nothrow) State());
}

class QuilIdleState : public QuilBaseState {
  public:
    QuilIdleState();
    void doCreate(QuilSession& session) override;
    void doDelete(QuilSession& session) override;
    void doRegister(QuilSession& session) override;
};

class QuilCreateState : public QuilBaseState {
  public:
    QuilCreateState();
    void doCreate(QuilSession& session) override;
    void doDelete(QuilSession& session) override;
    void doRegister(QuilSession& session) override;
};

class QuilDeleteState : public QuilBaseState {
  public:
    QuilDeleteState();
    void doCreate(QuilSession& session) override;
    void doDelete(QuilSession& session) override;
    void doRegister(QuilSession& session) override;
};

class QuilRegisterState : public QuilBaseState {
  public:
    QuilRegisterState();
    void doDelete(QuilSession& session) override;
    void doUnregister(QuilSession& session) override;
};

class QuilUnregisterState : public QuilBaseState {
  public:
    QuilUnregisterState();
    void doCreate(QuilSession& session) override;
    void doDelete(QuilSession& session) override;
    void doRegister(QuilSession& session) override;
};

class QuilTerminateState : public QuilBaseState {
  public:
    QuilTerminateState();
    void doCreate(QuilSession& session) override;
    void doDelete(QuilSession& session) override;
    void doRegister(QuilSession& session) override;
};

class QuilSimChangeState : public QuilBaseState {
  public:
    QuilSimChangeState();
    void doUnregister(QuilSession& session) override;
};
