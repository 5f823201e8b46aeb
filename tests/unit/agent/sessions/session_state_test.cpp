// The state machine: every cell of the transition table, with the exact lines that it logs.

#include "agent/sessions/states/session_states.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "agent/sessions/session.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/scarce_memory.hpp"

namespace {

const char* const kNames[] = {"Idle",       "Create",    "Delete",   "Register",
                              "Unregister", "Terminate", "SimChange"};
const char* const kEvents[] = {"", "create", "delete", "register", "unregister"};

struct Cell {
    int from;
    int event;
    int to;               // same as `from` for ignored and refused
    const char* refusal;  // "" for none
};

constexpr const char* kCreated = "6  already created.\n";
constexpr const char* kDeleted = "6  already deleted.\n";
constexpr const char* kRegistered = "6  already registered.\n";
constexpr const char* kUnregistered = "6  already unregistered.\n";

const Cell kTable[] = {
    {0, 1, 1, ""},       {0, 2, 0, ""},       {0, 3, 0, ""},          {0, 4, 0, kUnregistered},
    {1, 1, 1, ""},       {1, 2, 2, ""},       {1, 3, 3, ""},          {1, 4, 1, kUnregistered},
    {2, 1, 2, ""},       {2, 2, 2, ""},       {2, 3, 2, ""},          {2, 4, 2, kUnregistered},
    {3, 1, 3, kCreated}, {3, 2, 5, ""},       {3, 3, 3, kRegistered}, {3, 4, 4, ""},
    {4, 1, 1, ""},       {4, 2, 2, ""},       {4, 3, 3, ""},          {4, 4, 4, kUnregistered},
    {5, 1, 3, ""},       {5, 2, 5, ""},       {5, 3, 3, ""},          {5, 4, 5, kUnregistered},
    {6, 1, 6, kCreated}, {6, 2, 6, kDeleted}, {6, 3, 6, kRegistered}, {6, 4, 4, ""},
};

std::string transitionLine(int from, int to) {
    return std::string("5  Provider app id [app] current state[") + kNames[from] + "] next state[" +
           kNames[to] + "]\n";
}

std::string cellName(const ::testing::TestParamInfo<Cell>& info) {
    return std::string(kNames[info.param.from]) + "_" + kEvents[info.param.event];
}

class SessionTransition : public SessionsTest, public ::testing::WithParamInterface<Cell> {
  protected:
    SessionTransition() { putIntoState(m_session, GetParam().from); }

    QuilSession m_session{"app", "@ipc.1"};
};

class SessionState : public SessionsTest {
  protected:
    QuilSession m_session{"app", "@ipc.1"};
};

}  // namespace

TEST_P(SessionTransition, LeadsWhereTheTableSays) {
    m_session.processEvent(GetParam().event);
    EXPECT_EQ(stateOf(m_session), GetParam().to)
        << kNames[GetParam().from] << " on " << kEvents[GetParam().event];
}

TEST_P(SessionTransition, LogsExactlyWhatTheTableSays) {
    clearRecordedLines();
    m_session.processEvent(GetParam().event);
    const Cell& cell = GetParam();
    // Leaving Register by unregister alone also stops listening, which here has nothing to close.
    EXPECT_EQ(recordedText(),
              cell.from == cell.to ? cell.refusal : transitionLine(cell.from, cell.to));
}

TEST_P(SessionTransition, OnlyUnregisterOutOfRegisterStopsListening) {
    m_session.getPort().setPort(freePort());
    m_session.listenOnPort();
    const int port = m_session.getPort().getPort();
    const int socket = m_session.getPort().getSocket();
    ASSERT_TRUE(isListening(port));
    m_session.processEvent(GetParam().event);
    const bool stops = GetParam().from == STATE_REGISTER && GetParam().event == EVENT_UNREGISTER;
    EXPECT_EQ(isListening(port), !stops);
    EXPECT_EQ(m_session.getPort().getPort(), stops ? -1 : port);
    EXPECT_EQ(m_session.getPort().getSocket(), stops ? -1 : socket);
}

INSTANTIATE_TEST_SUITE_P(Table, SessionTransition, ::testing::ValuesIn(kTable), cellName);

TEST_F(SessionState, UnregisterInstallsTheNewStateBeforeItStopsListening) {
    putIntoState(m_session, STATE_REGISTER);
    m_session.getPort().setPort(freePort());
    m_session.listenOnPort();
    const std::string socket = std::to_string(m_session.getPort().getSocket());
    clearRecordedLines();
    m_session.processEvent(EVENT_UNREGISTER);
    EXPECT_EQ(recordedText(), transitionLine(3, 4) + "6 stopListenOnPort: shutdown fd " + socket +
                                  " returned 0 and errno 0\n6 stopListenOnPort: close fd " +
                                  socket + " returned 0\n");
}

TEST_F(SessionState, BareStateRefusesAllFourEvents) {
    QuilBaseState state;
    clearRecordedLines();
    state.doCreate(m_session);
    state.doDelete(m_session);
    state.doRegister(m_session);
    state.doUnregister(m_session);
    EXPECT_EQ(recordedText(), std::string(kCreated) + kDeleted + kRegistered + kUnregistered);
    EXPECT_EQ(stateOf(m_session), STATE_IDLE);
}

TEST_F(SessionState, BareStateHasType7AndNoName) {
    const QuilBaseState state;
    EXPECT_EQ(state.getStateType(), 7);
    EXPECT_EQ(state.getStateName(), "");
}

TEST_F(SessionState, EachStateHasItsTypeAndName) {
    for (int type = 0; type <= 6; ++type) {
        putIntoState(m_session, type);
        const std::unique_ptr<QuilBaseState> state = m_session.setState(nullptr);
        ASSERT_NE(state, nullptr);
        EXPECT_EQ(state->getStateType(), type);
        EXPECT_EQ(state->getStateName(), kNames[type]);
    }
}

TEST_F(SessionState, CreateTwiceOnANewSessionIsOneTransition) {
    clearRecordedLines();
    m_session.processEvent(EVENT_CREATE);
    m_session.processEvent(EVENT_CREATE);
    EXPECT_EQ(recordedText(), transitionLine(0, 1));
}

TEST_F(SessionState, NoEventLeadsOutOfDelete) {
    putIntoState(m_session, STATE_DELETE);
    for (int event = -1; event <= 6; ++event) {
        m_session.processEvent(event);
    }
    EXPECT_TRUE(m_session.isDeleted());
}

TEST_F(SessionState, UnknownEventsDoNothing) {
    clearRecordedLines();
    for (const int event : {0, 5, -1, 1000}) {
        m_session.processEvent(event);
    }
    EXPECT_EQ(recordedText(), "");
    EXPECT_EQ(stateOf(m_session), STATE_IDLE);
}

TEST_F(SessionState, EventsOnASessionWithoutAStateDoNothing) {
    QuilSession session("app");
    clearRecordedLines();
    for (int event = 1; event <= 4; ++event) {
        session.processEvent(event);
    }
    EXPECT_EQ(recordedText(), "");
    EXPECT_EQ(stateOf(session), -1);
}

TEST_F(SessionState, WithoutANextStateThePresentOneStays) {
    clearRecordedLines();
    m_session.enterState(nullptr);
    EXPECT_EQ(recordedText(),
              "3 Provider id [app]: problem transition from current state [?] to next state[?]\n");
    EXPECT_EQ(stateOf(m_session), STATE_IDLE);
}

TEST_F(SessionState, OutOfMemoryLeavesThePresentState) {
    clearRecordedLines();
    {
        const NoNothrowMemory none;
        m_session.processEvent(EVENT_CREATE);
    }
    EXPECT_EQ(recordedText(),
              "3 Provider id [app]: problem transition from current state [?] to next state[?]\n");
    EXPECT_EQ(stateOf(m_session), STATE_IDLE);
}

TEST_F(SessionState, EnteringAStateLogsOneTransitionFromWhateverThereWas) {
    putIntoState(m_session, STATE_DELETE);
    clearRecordedLines();
    m_session.enterState(std::make_unique<QuilRegisterState>());
    EXPECT_EQ(recordedText(), transitionLine(2, 3));
    EXPECT_TRUE(m_session.isRegistered());
}

TEST_F(SessionState, EnteringAStateFromNoneShowsAnEmptyName) {
    QuilSession session("app");
    clearRecordedLines();
    session.enterState(std::make_unique<QuilIdleState>());
    EXPECT_EQ(recordedText(), "5  Provider app id [app] current state[] next state[Idle]\n");
    EXPECT_EQ(stateOf(session), STATE_IDLE);
}

TEST_F(SessionState, SettingAStateGivesBackTheOneBefore) {
    clearRecordedLines();
    const std::unique_ptr<QuilBaseState> before =
        m_session.setState(std::make_unique<QuilTerminateState>());
    ASSERT_NE(before, nullptr);
    EXPECT_EQ(before->getStateType(), STATE_IDLE);
    EXPECT_TRUE(m_session.isTerminated());
    EXPECT_EQ(recordedText(), "");
}
