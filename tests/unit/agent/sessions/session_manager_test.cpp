// The registry of sessions: what it keeps, finds, saves, loads and tears down.

#include "agent/sessions/session_manager.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

#include "agent/messages/message_queue.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/requests/session_requests.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/scarce_memory.hpp"

namespace {

constexpr const char* kObject = "/pps/services/push/quilagent";

std::string number(int value) {
    return std::to_string(value);
}

class SessionManager : public SessionsTest {
  protected:
    SessionManager() : m_manager(*QuilSessionManager::getInstance()) {}
    ~SessionManager() override { m_manager.removeAll(); }

    // Adds a session, puts it into a state and gives it a port number; no trace in the log.
    QuilSession& add(const std::string& appId, const std::string& clientId, int state,
                     int port = -1) {
        auto session = std::make_unique<QuilSession>(appId, clientId);
        m_manager.addSession(session);
        QuilSession& added = *m_manager.getSessionByAppId(appId);
        putIntoState(added, state);
        added.getPort().setPort(port);
        clearRecordedLines();
        return added;
    }

    // What save writes.
    std::string saved(int* result = nullptr) {
        pps_encoder_t encoder;
        pps_encoder_initialize(&encoder, false);
        pps_encoder_start_object(&encoder, "@o");
        const int saved = m_manager.save(&encoder);
        if (result != nullptr) {
            *result = saved;
        }
        // Only an encoder that is back at the top level writes this as a line.
        pps_encoder_add_string(&encoder, "behind", "1");
        return pps_encoder_buffer(&encoder);
    }

    int load(const std::string& dat, bool sameSim) {
        pps_decoder_initialize(&m_decoder, ("@o\n" + dat + "behind::1\n").c_str());
        pps_decoder_push(&m_decoder, nullptr);
        return m_manager.load(&m_decoder, sameSim);
    }

    // Whether the decoder stands where it stood before the load.
    bool isDecoderBack() {
        std::string value;
        return pps_decoder_get_string(&m_decoder, "behind", &value) == PPS_DECODER_OK;
    }

    // App ids with the ports that getAllPorts gives.
    std::string ports() {
        std::string all;
        for (const QuilPort* port : m_manager.getAllPorts()) {
            all += port->getName() + ":" + number(port->getPort()) + " ";
        }
        return all;
    }

    // The SIM is `current`, and the sessions were saved with `stored`.
    void changeSim(const std::string& stored, const std::string& current) {
        m_platform.setImsi(current);
        m_platform.write(kObject, "@quilagent\nversion::1\nimsi::" + stored + "\n");
        QuilDataManager::getInstance()->load();
        clearRecordedLines();
    }

    QuilSessionManager& m_manager;
    pps_decoder_t m_decoder;
};

}  // namespace

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

TEST_F(SessionManager, RemoveAllDestroysEverySession) {
    QuilSession& session = add("a", "@ipc.1", STATE_CREATE, freePort());
    session.listenOnPort();
    const int port = session.getPort().getPort();
    add("b", "@ipc.2", STATE_CREATE);
    m_manager.removeAll();
    EXPECT_FALSE(isListening(port));
    EXPECT_EQ(m_manager.getSessionByAppId("a"), nullptr);
    EXPECT_EQ(m_manager.getSessionByAppId("b"), nullptr);
}

TEST_F(SessionManager, SavesTheRegisteredOnesWithAPortInOrderOfAppIds) {
    const int states[] = {STATE_IDLE,       STATE_CREATE,    STATE_DELETE,    STATE_REGISTER,
                          STATE_UNREGISTER, STATE_TERMINATE, STATE_SIM_CHANGE};
    for (const int state : states) {
        add("z" + number(9 - state), "", state, 4000 + state);
        add("without port " + number(state), "", state);
    }
    EXPECT_EQ(saved(),
              "@o\ndat:json:{\"sessions\":["
              "{\"providerApplicationId\":\"z3\",\"ppgUrl\":\"\",\"launchString\":\"\","
              "\"token\":\"\",\"port\":4006},"
              "{\"providerApplicationId\":\"z4\",\"ppgUrl\":\"\",\"launchString\":\"\","
              "\"token\":\"\",\"port\":4005},"
              "{\"providerApplicationId\":\"z6\",\"ppgUrl\":\"\",\"launchString\":\"\","
              "\"token\":\"\",\"port\":4003}"
              "]}\nbehind::1\n");
}

TEST_F(SessionManager, SavesAnEmptyArrayWithoutRegisteredSessions) {
    add("app", "@ipc.1", STATE_CREATE, 4711);
    int result = 0;
    EXPECT_EQ(saved(&result), "@o\ndat:json:{\"sessions\":[]}\nbehind::1\n");
    EXPECT_EQ(result, 1);
}

TEST_F(SessionManager, OutOfMemoryWhileSavingGives0) {
    add(longText('a'), "", STATE_REGISTER, 4711);
    const ScarceMemory memory(kLongTextBytes);
    int result = 1;
    saved(&result);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_TRUE(wasLogged(3,
                          "QuilSessionManager::save: exception occurred when trying to loop "
                          "through session map"));
}

TEST_F(SessionManager, LoadsEverySavedSession) {
    EXPECT_EQ(load("dat:json:{\"sessions\":[{\"providerApplicationId\":\"a\",\"port\":-1},"
                   "{\"providerApplicationId\":\"b\",\"port\":-1}]}\n",
                   true),
              1);
    EXPECT_TRUE(wasLogged(6, "Load: n_sessions [2]")) << recordedText();
    EXPECT_TRUE(m_manager.getSessionByAppId("a")->isTerminated());
    EXPECT_TRUE(m_manager.getSessionByAppId("b")->isTerminated());
    EXPECT_TRUE(isDecoderBack());
}

TEST_F(SessionManager, LoadsIntoSimChangeWithAnotherSim) {
    load("dat:json:{\"sessions\":[{\"providerApplicationId\":\"a\",\"port\":-1}]}\n", false);
    EXPECT_EQ(stateOf(*m_manager.getSessionByAppId("a")), STATE_SIM_CHANGE);
}

TEST_F(SessionManager, LoadOfNoSessionAddsNothingAndPopsBothLevels) {
    EXPECT_EQ(load("dat:json:{\"sessions\":[]}\n", true), 1);
    EXPECT_EQ(recordedText(), "6 Load: n_sessions [0]\n");
    EXPECT_TRUE(isDecoderBack());
}

TEST_F(SessionManager, LoadWithoutSessionsAddsNothingAndPopsBothLevels) {
    for (const char* dat :
         {"", "dat:json:{}\n", "dat::text\n", "dat:json:{\"sessions\":1}\n", "dat:json:[]\n"}) {
        clearRecordedLines();
        EXPECT_EQ(load(dat, true), 1) << dat;
        EXPECT_EQ(recordedText(), "6 Load: n_sessions [0]\n") << dat;
        EXPECT_TRUE(isDecoderBack()) << dat;
    }
}

TEST_F(SessionManager, LoadPassesOverElementsThatAreNoSessions) {
    EXPECT_EQ(load("dat:json:{\"sessions\":[1,\"x\",null,[],{},{\"providerApplicationId\":\"a\"},"
                   "{\"providerApplicationId\":\"\"}]}\n",
                   true),
              1);
    EXPECT_NE(m_manager.getSessionByAppId("a"), nullptr);
    EXPECT_EQ(countRecorded(3,
                            "QuilSessionManager::addSavedSession -- attempt to add session for "
                            "EMPTY provider app id"),
              6);
    EXPECT_TRUE(isDecoderBack());
}

TEST_F(SessionManager, LoadsWhatSaveWrote) {
    QuilSession& session = add("app \"1\"\n", "@ipc.1", STATE_REGISTER, 65000);
    session.setPpgUrl("http://ppg/?a=b&c");
    session.setLaunchString("\x01\t\\");
    session.setToken("\xc3\xa4");
    const std::string text = saved();
    m_manager.removeAll();
    pps_decoder_initialize(&m_decoder, text.c_str());
    pps_decoder_push(&m_decoder, nullptr);
    EXPECT_EQ(m_manager.load(&m_decoder, true), 1);
    EXPECT_EQ(saved(), text);
}

TEST_F(SessionManager, SimChangeOfNoSessionIsNothing) {
    EXPECT_EQ(m_manager.processSimChange(quilDestroyChannel), 1);
    EXPECT_EQ(recordedText(), "6 processSimChange: session map is empty.\n");
}

TEST_F(SessionManager, SameSimIsNoSimChange) {
    changeSim("123", "123");
    add("app", "", STATE_TERMINATE, 4711);
    EXPECT_EQ(m_manager.processSimChange(quilDestroyChannel), 1);
    EXPECT_EQ(recordedText(),
              "6 m_imsi[123] current imsi [123]\n6 processSimChange: is same sim\n");
}

TEST_F(SessionManager, SimChangeDeregistersTheRegisteredOnesWithAPort) {
    changeSim("123", "456");
    add("b", "", STATE_SIM_CHANGE, 4711).setPpgUrl("http://ppg");
    add("a", "@ipc.1", STATE_REGISTER, 4712);
    add("c", "@ipc.2", STATE_CREATE, 4713);
    add("d", "@ipc.3", STATE_SIM_CHANGE);
    EXPECT_EQ(m_manager.processSimChange(quilDestroyChannel), 1);
    for (const char* line : {"processSimChange: app id [a] port[4712] socket[-1]",
                             "processSimChange: app id [b] port[4711] socket[-1]",
                             "processSimChange: app id [c] port[4713] socket[-1]",
                             "processSimChange: app id [d] port[-1] socket[-1]"}) {
        EXPECT_TRUE(wasLogged(6, line)) << line << " not in\n" << recordedText();
    }
    std::string requests;
    QuilMessageManager::getInstance()->push(std::make_unique<QuilMessageNode>(0, nullptr));
    for (;;) {
        const auto node = QuilMessageManager::getInstance()->pop();
        const auto* request = dynamic_cast<const QuilServerRegMessage*>(node->getMessage());
        if (request == nullptr) {
            break;
        }
        requests += number(node->getType()) + " app=" + request->getName() +
                    " id=" + request->getId() + " client=" + request->getClientId() +
                    " url=" + request->getPpgUrl() + "\n";
    }
    EXPECT_EQ(requests,
              "8 app=a id= client=@ipc.1 url=\n"
              "8 app=b id= client= url=http://ppg\n");
}

TEST_F(SessionManager, OutOfMemoryDuringSimChangeGives0) {
    changeSim("123", "456");
    add("app", longText('c'), STATE_SIM_CHANGE, 4711);
    const ScarceMemory memory(kLongTextBytes);
    EXPECT_EQ(m_manager.processSimChange(quilDestroyChannel), 0);
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_TRUE(wasLogged(3, "exception occurred when trying to get all ports.")) << recordedText();
}

TEST_F(SessionManager, AllPortsAreThoseOfRegisteredSessionsWithAPort) {
    for (int state = 0; state <= 6; ++state) {
        add("a" + number(state), "", state, 4000 + state);
        add("without" + number(state), "", state, 0);
    }
    EXPECT_EQ(ports(), "a3:4003 a5:4005 a6:4006 ");
    EXPECT_EQ(countRecorded(6, "app id [a0] port[4000] socket[-1]"), 1) << recordedText();
    EXPECT_EQ(countRecorded(6, "app id [without3] port[0] socket[-1]"), 1) << recordedText();
}

TEST_F(SessionManager, AllPortsAreTheSessionsOwnAndRebuiltEachTime) {
    QuilSession& session = add("app", "@ipc.1", STATE_REGISTER, 4711);
    ASSERT_EQ(m_manager.getAllPorts().size(), 1U);
    EXPECT_EQ(m_manager.getAllPorts().front(), &session.getPort());
    putIntoState(session, STATE_CREATE);
    EXPECT_EQ(m_manager.getAllPorts().size(), 0U);
}

TEST_F(SessionManager, OutOfMemoryWhileListingPortsIsLogged) {
    add("app", "@ipc.1", STATE_REGISTER, 4711);
    const ScarceMemory memory(sizeof(QuilPort*));
    EXPECT_EQ(ports(), "");
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_TRUE(wasLogged(3, "exception occurred when trying to get all ports.")) << recordedText();
}

// A loop that watched nothing would not come back by itself.
TEST_F(SessionManager, PortsWithoutMemoryForANewListAreTheOnesBefore) {
    add("a", "@ipc.1", STATE_REGISTER, 4711);
    ASSERT_EQ(m_manager.getAllPorts().size(), 1U);
    add("0", "@ipc.2", STATE_REGISTER, 4712);
    {
        // The new list begins with "0" and finds no room for "a".
        const ScarceMemory scarce(2 * sizeof(QuilPort*));
        const std::vector<QuilPort*> ports = m_manager.getAllPorts();
        ASSERT_TRUE(scarce.hasFailed());
        ASSERT_EQ(ports.size(), 1U);
        EXPECT_EQ(ports[0]->getName(), "a");
    }
    EXPECT_TRUE(wasLogged(3, "exception occurred when trying to get all ports."));
    EXPECT_EQ(m_manager.getAllPorts().size(), 2U);
}

// Any push that comes is the occasion, whoever it is for; a second has to pass between two looks.
TEST_F(SessionManager, DeadSendersOfAllSessionsAreLookedForOnceASecond) {
    m_platform.configure("push-timeout 1\n");
    const auto keepDead = [this](const std::string& appId) {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_TRUE(bindLoopback(listener));
        EXPECT_EQ(listen(listener, 1), 0);
        close(connectLoopback(boundPort(listener)));
        QuilSession& session = add(appId, "@ipc.1", STATE_REGISTER);
        EXPECT_EQ(session.addPushSocket("p", accept(listener, nullptr, nullptr)), 1);
        close(listener);
        return &session;
    };
    QuilSession* first = keepDead("a");
    QuilSession* second = keepDead("b");
    m_manager.lookForDeadPushSockets();
    EXPECT_NE(first->getPushSocket("p"), nullptr) << "it was given no time";
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    m_manager.lookForDeadPushSockets();
    EXPECT_EQ(first->getPushSocket("p"), nullptr);
    EXPECT_EQ(second->getPushSocket("p"), nullptr);
    QuilSession* third = keepDead("c");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    m_manager.lookForDeadPushSockets();
    EXPECT_NE(third->getPushSocket("p"), nullptr);
}
