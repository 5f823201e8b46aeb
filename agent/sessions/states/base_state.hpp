// What a session is allowed to do next. A session holds one state object; each of the four session
// events calls one slot of it, which moves the session on (changeState), ignores the event, or
// refuses it with a line.

#pragma once

#include <memory>
#include <string>

class QuilSession;

// The numbers by which the rest of the agent tells states apart. They are never stored.
enum QuilStateType {
    STATE_IDLE = 0,
    STATE_CREATE = 1,
    STATE_DELETE = 2,
    STATE_REGISTER = 3,
    STATE_UNREGISTER = 4,
    STATE_TERMINATE = 5,
    STATE_SIM_CHANGE = 6,
    STATE_NONE = 7  // of a bare base state, which no session holds
};

// The root of the states. Its own slots refuse: they log a fixed text and change nothing. Slots run
// under the session's lock.
class QuilBaseState {
  public:
    QuilBaseState() = default;
    virtual ~QuilBaseState() = default;
    QuilBaseState(const QuilBaseState&) = delete;
    QuilBaseState& operator=(const QuilBaseState&) = delete;

    virtual void doCreate(QuilSession& session);
    virtual void doDelete(QuilSession& session);
    virtual void doRegister(QuilSession& session);
    virtual void doUnregister(QuilSession& session);

    int getStateType() const { return m_type; }
    const std::string& getStateName() const { return m_name; }

    // The one transition: logs it, installs `next` in the session and destroys `current` (which may
    // be null for a session without a state). A slot that calls this runs on the destroyed object
    // afterwards and must not touch it. With a null `next` nothing changes but for a line in the
    // log.
    static void changeState(const QuilBaseState* current, QuilSession& session,
                            std::unique_ptr<QuilBaseState> next);

  protected:
    QuilBaseState(std::string name, int type);

  private:
    std::string m_name;
    int m_type = STATE_NONE;
};
