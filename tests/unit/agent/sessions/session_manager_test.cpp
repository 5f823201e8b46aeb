// The registry of sessions, one session at a time: added, found, told of events and deleted.

#include "agent/sessions/session_manager.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

#include "agent/sessions/states/session_states.hpp"
#include "tests/support/scarce_memory.hpp"
#include "tests/unit/agent/sessions/session_manager_fixture.hpp"

TEST_F(SessionManager, IsOneRootObject) {
    EXPECT_EQ(QuilSessionManager::getInstance(), &m_manager);
    EXPECT_FALSE((std::is_base_of_v<QuilBaseObject, QuilSessionManager>));
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilSessionManager>);
}

TEST_F(SessionManager, AddingNullIsRefused) {
    std::unique_ptr<QuilSession> none;
    EXPECT_EQ(m_manager.addSession(none), 0);
    EXPECT_EQ(recordedText(),
              "3 QuilSessionManager::addSession -- attempt to add session for NULL session.\n");
}

TEST_F(SessionManager, AddingWithoutAppIdIsRefusedAndTheCallerKeepsTheSession) {
    auto session = std::make_unique<QuilSession>("", "@ipc.1");
    EXPECT_EQ(m_manager.addSession(session), 0);
    EXPECT_EQ(recordedText(),
              "3 QuilSessionManager::addSession -- attempt to add session for EMPTY provider app "
              "id\n");
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(stateOf(*session), STATE_IDLE);
}

TEST_F(SessionManager, AddedSessionIsKeptAndMovesToCreate) {
    auto session = std::make_unique<QuilSession>("app", "@ipc.1");
    QuilSession* const added = session.get();
    EXPECT_EQ(m_manager.addSession(session), 1);
    EXPECT_EQ(session, nullptr);
    EXPECT_EQ(recordedText(),
              "5  Provider app id [app] current state[Idle] next state[Create]\n"
              "5 QuilSessionManager::addSession -> added key [app]\n\n"
              "5 QuilSessionManager::addSession: return_code = 1\n\n");
    EXPECT_EQ(m_manager.getSessionByAppId("app"), added);
    EXPECT_TRUE(added->isCreated());
}

TEST_F(SessionManager, AddingAgainKeepsTheFirstWithTheNewClient) {
    QuilSession& first = add("app", "@ipc.1", STATE_CREATE);
    first.setToken("t");
    auto second = std::make_unique<QuilSession>("app", "@ipc.2");
    EXPECT_EQ(m_manager.addSession(second), 1);
    EXPECT_EQ(recordedText(),
              "5 QuilSessionManager::addSession -- session  exist [app]\n\n"
              "5 QuilSessionManager::addSession: return_code = 1\n\n");
    ASSERT_NE(second, nullptr) << "the caller keeps what was not stored";
    EXPECT_EQ(stateOf(*second), STATE_IDLE);
    EXPECT_EQ(m_manager.getSessionByAppId("app"), &first);
    EXPECT_EQ(first.getClientObjectId(), "@ipc.2");
    EXPECT_EQ(first.getToken(), "t");
}

TEST_F(SessionManager, AddingAgainSendsCreateToTheFirst) {
    QuilSession& first = add("app", "", STATE_TERMINATE, 4711);
    auto second = std::make_unique<QuilSession>("app", "@ipc.2");
    EXPECT_EQ(m_manager.addSession(second), 1);
    EXPECT_EQ(stateOf(first), STATE_REGISTER);
    EXPECT_EQ(first.getPort().getPort(), 4711);
}

TEST_F(SessionManager, OutOfMemoryWhileAddingRefusesAndChangesNothing) {
    const std::string appId = longText('a');
    auto session = std::make_unique<QuilSession>(appId, "@ipc.1");
    int failures = 1;  // the very first copy of the id is made before anything else happens
    for (int added = 0; added == 0; ++failures) {
        ASSERT_LT(failures, 20);
        clearRecordedLines();
        const ScarceMemory memory(kLongTextBytes, failures);
        added = m_manager.addSession(session);
        if (added == 0) {
            ASSERT_NE(session, nullptr);
            ASSERT_EQ(ports(), "");
            ASSERT_TRUE(wasLogged(3, "exception occurred when adding session [" + appId + "]\n"));
            ASSERT_TRUE(wasLogged(5, "QuilSessionManager::addSession: return_code = 0\n"));
        }
    }
    EXPECT_GT(failures, 2);
    EXPECT_NE(m_manager.getSessionByAppId(appId), nullptr);
}

TEST_F(SessionManager, SavedNullIsRefused) {
    m_manager.addSavedSession(nullptr);
    EXPECT_EQ(recordedText(),
              "3 QuilSessionManager::addSavedSession -- attempt to add session for NULL "
              "session.\n");
}

TEST_F(SessionManager, SavedSessionWithoutAppIdIsRefusedAndStopsListening) {
    const int port = freePort();
    auto session = std::make_unique<QuilSession>("", "");
    session->getPort().setPort(port);
    session->listenOnPort();
    clearRecordedLines();
    m_manager.addSavedSession(std::move(session));
    EXPECT_TRUE(wasLogged(3,
                          "QuilSessionManager::addSavedSession -- attempt to add session for EMPTY "
                          "provider app id"))
        << recordedText();
    EXPECT_FALSE(isListening(port));
}

TEST_F(SessionManager, SavedSessionIsKeptInItsStateWithoutAnEvent) {
    auto session = std::make_unique<QuilSession>("app", "");
    putIntoState(*session, STATE_TERMINATE);
    m_manager.addSavedSession(std::move(session));
    EXPECT_EQ(recordedText(),
              "5 QuilSessionManager::addSavedSession -> added key [app]\n\n"
              "5 QuilSessionManager::addSavedSession: return_code = 1\n\n");
    EXPECT_TRUE(m_manager.getSessionByAppId("app")->isTerminated());
}

TEST_F(SessionManager, SavedSessionReplacesOneThatWasThereAndThatStopsListening) {
    QuilSession& first = add("app", "@ipc.1", STATE_CREATE, freePort());
    first.listenOnPort();
    const int port = first.getPort().getPort();
    putIntoState(first, STATE_TERMINATE);
    auto second = std::make_unique<QuilSession>("app", "");
    QuilSession* const expected = second.get();
    m_manager.addSavedSession(std::move(second));
    EXPECT_EQ(m_manager.getSessionByAppId("app"), expected);
    EXPECT_FALSE(isListening(port));
}

TEST_F(SessionManager, OutOfMemoryWhileAddingASavedSessionIsLogged) {
    const std::string appId = longText('a');
    auto session = std::make_unique<QuilSession>(appId, "");
    {
        const ScarceMemory memory(kLongTextBytes, 1);
        m_manager.addSavedSession(std::move(session));
    }
    EXPECT_TRUE(wasLogged(3, "exception occurred when adding saved session [" + appId + "]\n"));
    EXPECT_TRUE(wasLogged(5, "QuilSessionManager::addSavedSession: return_code = 0\n"));
    EXPECT_EQ(m_manager.getSessionByAppId(appId), nullptr);
}

TEST_F(SessionManager, LookUpWithoutAppIdFindsNothing) {
    add("app", "@ipc.1", STATE_CREATE);
    EXPECT_EQ(m_manager.getSessionByAppId(""), nullptr);
    EXPECT_EQ(recordedText(),
              "3 QuilSessionManager::getSessionByAppId -- attempt to get session for EMPTY "
              "provider app id\n");
}

TEST_F(SessionManager, LookUpByAppIdGivesThatSessionOrNull) {
    QuilSession& session = add("app", "@ipc.1", STATE_CREATE);
    EXPECT_EQ(m_manager.getSessionByAppId("app"), &session);
    EXPECT_EQ(m_manager.getSessionByAppId("ap"), nullptr);
    EXPECT_EQ(m_manager.getSessionByAppId("App"), nullptr);
    EXPECT_EQ(recordedText(),
              "5 providerAppID is app\n\n6 getSessionByAppId: size of map 1\n"
              "5 providerAppID is ap\n\n6 getSessionByAppId: size of map 1\n"
              "5 providerAppID is App\n\n6 getSessionByAppId: size of map 1\n");
}

TEST_F(SessionManager, LookUpByClientInAnEmptyRegistryFindsNothing) {
    EXPECT_EQ(m_manager.getSessionByClientId("@ipc.1"), nullptr);
    EXPECT_EQ(recordedText(),
              "3 QuilSessionManager::getSessionByClientId -- attempt to get session from EMPTY "
              "map.\n");
}

TEST_F(SessionManager, LookUpOfTheEmptyClientFindsNothing) {
    add("app", "", STATE_CREATE);
    EXPECT_EQ(m_manager.getSessionByClientId(""), nullptr);
    EXPECT_EQ(recordedText(),
              "3 QuilSessionManager::getSessionByClientId -- attempt to get session for EMPTY "
              "client id.\n");
}

TEST_F(SessionManager, LookUpByClientGivesTheFirstMatchInOrderOfAppIds) {
    add("c", "@ipc.1", STATE_CREATE);
    QuilSession& expected = add("b", "@ipc.1", STATE_CREATE);
    add("a", "@ipc.2", STATE_CREATE);
    EXPECT_EQ(m_manager.getSessionByClientId("@ipc.1"), &expected);
    EXPECT_EQ(recordedText(), "5 clientId is @ipc.1\n");
}

TEST_F(SessionManager, LookUpOfAnUnknownClientGivesTheGreatestAppId) {
    QuilSession& greatest = add("zz", "@ipc.1", STATE_CREATE);
    add("aa", "@ipc.2", STATE_CREATE);
    EXPECT_EQ(m_manager.getSessionByClientId("@ipc.99"), &greatest);
}

TEST_F(SessionManager, OutOfMemoryWhileLookingUpAClientFindsNothing) {
    add("app", longText('c'), STATE_CREATE);
    const ScarceMemory memory(kLongTextBytes);
    EXPECT_EQ(m_manager.getSessionByClientId("@ipc.1"), nullptr);
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_TRUE(wasLogged(3,
                          "QuilPushMessage::getSessionByClientId: exception occurred when trying "
                          "to retrieve the session by client Id @ipc.1]."))
        << recordedText();
}

TEST_F(SessionManager, EventGoesToTheSessionOfTheClient) {
    QuilSession& one = add("a", "@ipc.1", STATE_CREATE);
    QuilSession& two = add("b", "@ipc.2", STATE_CREATE);
    EXPECT_EQ(m_manager.sendEventByClientId("@ipc.1", EVENT_REGISTER), 1);
    EXPECT_EQ(stateOf(one), STATE_REGISTER);
    EXPECT_EQ(stateOf(two), STATE_CREATE);
}

TEST_F(SessionManager, EventForAnUnknownClientGoesToTheGreatestAppId) {
    add("a", "@ipc.1", STATE_CREATE);
    QuilSession& last = add("b", "@ipc.2", STATE_CREATE);
    EXPECT_EQ(m_manager.sendEventByClientId("@ipc.99", EVENT_REGISTER), 1);
    EXPECT_EQ(stateOf(last), STATE_REGISTER);
}

TEST_F(SessionManager, EventWithoutAnySessionIsLogged) {
    EXPECT_EQ(m_manager.sendEventByClientId("@ipc.1", EVENT_CREATE), 0);
    EXPECT_TRUE(wasLogged(3, "Session for client id [@ipc.1] not found.")) << recordedText();
}

TEST_F(SessionManager, EventIsHandledOutsideTheManagersLock) {
    // The state's slot waits until another thread got an answer from the manager.
    class Asking : public QuilBaseState {
      public:
        void doCreate(QuilSession& /*session*/) override {
            std::atomic<bool> isDone{false};
            std::thread other([&isDone] {
                QuilSessionManager::getInstance()->getSessionByAppId("none");
                isDone = true;
            });
            isThrough = waitUntil([&isDone] { return isDone.load(); });
            other.join();
        }
        bool isThrough = false;
    };
    QuilSession& session = add("app", "@ipc.1", STATE_CREATE);
    auto state = std::make_unique<Asking>();
    Asking& asking = *state;
    session.setState(std::move(state));
    m_manager.sendEventByClientId("@ipc.1", EVENT_CREATE);
    EXPECT_TRUE(asking.isThrough);
}

TEST_F(SessionManager, DeleteOfAnUnknownSessionGives0) {
    EXPECT_EQ(m_manager.deleteSession("app"), 0);
    EXPECT_EQ(recordedText(), "");
}

TEST_F(SessionManager, DeletedSessionIsRemovedAndStopsListening) {
    QuilSession& session = add("app", "@ipc.1", STATE_CREATE, freePort());
    session.listenOnPort();
    const int port = session.getPort().getPort();
    clearRecordedLines();
    EXPECT_EQ(m_manager.deleteSession("app"), 1);
    EXPECT_TRUE(wasLogged(5, "QuilSessionManager::deleteSession: session [app] removed."))
        << recordedText();
    EXPECT_EQ(m_manager.getSessionByAppId("app"), nullptr);
    EXPECT_FALSE(isListening(port));
}

TEST_F(SessionManager, DeleteLeavesARegisteredSessionInTerminate) {
    QuilSession& session = add("app", "@ipc.1", STATE_REGISTER, 4711);
    EXPECT_EQ(m_manager.deleteSession("app"), 1);
    EXPECT_EQ(recordedText(),
              "5  Provider app id [app] current state[Register] next state[Terminate]\n");
    EXPECT_EQ(m_manager.getSessionByAppId("app"), &session);
}

TEST_F(SessionManager, OutOfMemoryWhileDeletingKeepsTheSession) {
    const std::string appId = longText('a');
    add(appId, "@ipc.1", STATE_CREATE);
    {
        const ScarceMemory memory(kLongTextBytes);
        EXPECT_EQ(m_manager.deleteSession(appId), 0);
        EXPECT_TRUE(memory.hasFailed());
    }
    EXPECT_TRUE(wasLogged(3,
                          "QuilSessionManager::removeSession: exception occurred when removing "
                          "session [" +
                              appId + "]"));
    EXPECT_NE(m_manager.getSessionByAppId(appId), nullptr);
}

TEST_F(SessionManager, DeleteByTheEmptyClientIsRefused) {
    add("app", "", STATE_CREATE);
    EXPECT_EQ(m_manager.deleteSessionByClientId(""), 0);
    EXPECT_EQ(recordedText(),
              "3 QuilSessionManager::deleteSessionByClientId -- attempt to get session for EMPTY "
              "client id.\n");
    EXPECT_NE(m_manager.getSessionByAppId("app"), nullptr);
}

TEST_F(SessionManager, DeleteByClientWithoutAnySessionIsLogged) {
    EXPECT_EQ(m_manager.deleteSessionByClientId("@ipc.1"), 0);
    EXPECT_TRUE(wasLogged(5, "Session for client id [@ipc.1] not found.")) << recordedText();
}

TEST_F(SessionManager, DeleteByClientRemovesThatClientsSession) {
    add("a", "@ipc.1", STATE_CREATE);
    add("b", "@ipc.2", STATE_CREATE);
    EXPECT_EQ(m_manager.deleteSessionByClientId("@ipc.1"), 1);
    EXPECT_EQ(m_manager.getSessionByAppId("a"), nullptr);
    EXPECT_NE(m_manager.getSessionByAppId("b"), nullptr);
}

TEST_F(SessionManager, DeleteByAppIdSavesWhatIsLeft) {
    m_platform.makeFolders("/pps/services/push");
    add("a", "@ipc.1", STATE_CREATE, 4711);
    add("b", "@ipc.2", STATE_REGISTER, 4712);
    EXPECT_EQ(m_manager.deleteSessionByProviderAppId(
                  "a", [] { return QuilDataManager::getInstance()->save(); }),
              1);
    EXPECT_TRUE(wasLogged(6, "deleteSessionByProviderAppId: deleting [a]")) << recordedText();
    const std::string text = m_platform.read(kObject);
    EXPECT_EQ(text.find("\"a\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"b\""), std::string::npos) << text;
}

TEST_F(SessionManager, DeleteByUnknownAppIdSavesNothing) {
    m_platform.makeFolders("/pps/services/push");
    EXPECT_EQ(m_manager.deleteSessionByProviderAppId(
                  "a", [] { return QuilDataManager::getInstance()->save(); }),
              0);
    EXPECT_EQ(recordedText(), "6 deleteSessionByProviderAppId: deleting [a]\n");
    EXPECT_EQ(m_platform.read(kObject), "");
}
