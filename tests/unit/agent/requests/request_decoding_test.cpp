// Decoding a request and calling the operation that it names: every request name, every attribute
// missing, empty or of a wrong type, and requests that are damaged in any way.

#include <algorithm>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "agent/process/handler_thread.hpp"
#include "agent/requests/request_reader.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/clients_fixture.hpp"
namespace {

const std::string kApp = "com.example.news";
const std::string kClient = "@ipc.17";

class ClientRequest : public ClientsTest {
  protected:
    ClientRequest() { serveObject(); }

    // Carries a golden request out and gives what request_reader.cpp logged.
    static std::string linesFor(const std::string& file) {
        clearRecordedLines();
        clientProcessRequest(golden(file).c_str());
        return linesOf("request_reader.cpp");
    }
};

}  // namespace

TEST_F(ClientRequest, CreateSessionIsDispatched) {
    EXPECT_EQ(linesFor("requests_create_session.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [createSession]\n"
              "6 id [1].\n"
              "5 createSession Called!\n");
    EXPECT_EQ(drainQueue(), "type=1 app=com.example.news id=1 client=@ipc.17 err=0\n");
}

TEST_F(ClientRequest, CreateChannelIsDispatchedWithItsUrl) {
    addSession(kApp, kClient);
    EXPECT_EQ(linesFor("requests_create_channel.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [createChannel]\n"
              "6 id [1].\n"
              "5 createChannel Called. ppgUrl is [http://push.example.com:8080]\n");
    EXPECT_EQ(drainQueue(),
              "type=7 app=com.example.news id=1 client=@ipc.17 err=0 "
              "url=http://push.example.com:8080 register\n");
}

TEST_F(ClientRequest, DestroyChannelIsDispatchedWithoutALineOfItsOwn) {
    addSession<QuilRegisterState>(kApp, kClient);
    EXPECT_EQ(linesFor("requests_destroy_channel.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [destroyChannel]\n"
              "6 id [1].\n");
    EXPECT_EQ(drainQueue(), "type=8 app=com.example.news id=1 client=@ipc.17 err=0 url= leave\n");
}

TEST_F(ClientRequest, RegisterToLaunchIsDispatchedWithItsString) {
    QuilSession* session = addSession(kApp, kClient);
    EXPECT_EQ(linesFor("requests_register_to_launch.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [registerToLaunch]\n"
              "6 id [1].\n"
              "5 registerToLaunch Called. launch string is [news://open?from=push]\n");
    EXPECT_EQ(drainQueue(), "type=4 app=com.example.news id=1 client=@ipc.17 err=0\n");
    EXPECT_EQ(session->getLaunchString(), "news://open?from=push");
}

TEST_F(ClientRequest, UnregisterFromLaunchIsDispatched) {
    QuilSession* session = addSession(kApp, kClient);
    session->setLaunchString("x");
    EXPECT_EQ(linesFor("requests_unregister_from_launch.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [unregisterFromLaunch]\n"
              "6 id [1].\n"
              "5 unregisterFromLaunch Called.\n");
    EXPECT_EQ(drainQueue(), "type=4 app=com.example.news id=1 client=@ipc.17 err=0\n");
    EXPECT_EQ(session->getLaunchString(), "");
}

TEST_F(ClientRequest, AcceptPushPassesItsIdOnUnchangedAsThePushId) {
    addSession(kApp, kClient);
    EXPECT_EQ(linesFor("requests_accept_push.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [acceptPush]\n"
              "6 id [ m1].\n"
              "5 acceptPush called and Push id [ m1].\n");
    EXPECT_TRUE(wasLogged(6, "quilAccept Called app id [com.example.news]")) << recordedText();
    EXPECT_TRUE(wasLogged(2, "Failed to find pushId[ m1]"));
    EXPECT_EQ(drainQueue() + repliesSoFar(), "");
}

TEST_F(ClientRequest, RejectPushPassesItsIdOnUnchangedAsThePushId) {
    addSession(kApp, kClient);
    EXPECT_EQ(linesFor("requests_reject_push.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [rejectPush]\n"
              "6 id [ m1].\n"
              "5 rejectPush called and Push id [ m1].\n");
    EXPECT_TRUE(wasLogged(6, "quilRejectPush Called app id [com.example.news]")) << recordedText();
    EXPECT_TRUE(wasLogged(2, "Failed to find pushId[ m1]"));
    EXPECT_EQ(drainQueue() + repliesSoFar(), "");
}

TEST_F(ClientRequest, UnknownNameIsLoggedAndQueuedAsType10) {
    EXPECT_EQ(linesFor("requests_unknown_name.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [createsession]\n"
              "6 id [1].\n"
              "3 Unexpected client message received: createsession\n");
    EXPECT_EQ(drainQueue(), "type=10 app=com.example.news id=1 client=@ipc.17 err=10104\n");
}

TEST_F(ClientRequest, NamesAreComparedExactly) {
    for (const char* name :
         {"CreateSession", "createSessio", "createSessions", " createSession", "createSession ",
          "createchannel", "registertolaunch", "unregisterToLaunch", "onSimChange"}) {
        clientProcessRequest(("@ipc.17\nmsg::" + std::string(name) +
                              "\nid::1\ndat:json:{\"providerApplicationId\":\"app\"}\n")
                                 .c_str());
        EXPECT_TRUE(wasLogged(3, std::string("Unexpected client message received: ") + name));
        EXPECT_EQ(drainQueue(), "type=10 app=app id=1 client=@ipc.17 err=10104\n") << name;
    }
}

TEST_F(ClientRequest, ClientThatConnectsIsLoggedAndGetsNothing) {
    EXPECT_EQ(linesFor("requests_client_connected.txt"),
              "6 client id (connection id) @ipc.17\n"
              "5 ----------------- PPS_CREATED------------------------------\n"
              "6 msg []\n"
              "3 Empty message received from [@ipc.17].\n");
    EXPECT_EQ(drainQueue() + repliesSoFar(), "");
}

TEST_F(ClientRequest, ClientThatLeavesIsLoggedAndKeepsItsSession) {
    QuilSession* session = addSession(kApp, kClient);
    EXPECT_EQ(linesFor("requests_client_gone.txt"),
              "6 client id (connection id) @ipc.17\n"
              "5 PPS_DELETE: removed client id [@ipc.17] return code [1]\n"
              "6 msg []\n"
              "3 Empty message received from [@ipc.17].\n");
    EXPECT_EQ(drainQueue() + repliesSoFar(), "");
    EXPECT_EQ(QuilSessionManager::getInstance()->getSessionByAppId(kApp), session);
    EXPECT_EQ(session->getClientObjectId(), kClient);
}

TEST_F(ClientRequest, ConnectionNoticeWithARequestInItIsCarriedOut) {
    clientProcessRequest(("+" + golden("requests_create_session.txt")).c_str());
    EXPECT_TRUE(wasLogged(5, "----------------- PPS_CREATED------------------------------"));
    EXPECT_EQ(drainQueue(), "type=1 app=com.example.news id=1 client=@ipc.17 err=0\n");
    clientProcessRequest(("-" + golden("requests_create_session.txt")).c_str());
    EXPECT_TRUE(wasLogged(5, "PPS_DELETE: removed client id [@ipc.17] return code [1]"));
    EXPECT_EQ(drainQueue(), "type=1 app=com.example.news id=1 client=@ipc.17 err=0\n");
}

TEST_F(ClientRequest, NullTextIsAnEmptyRequest) {
    clientProcessRequest(nullptr);
    EXPECT_TRUE(wasLogged(6, "client id (connection id) "));
    EXPECT_TRUE(wasLogged(3, "Empty message received from []."));
    EXPECT_EQ(drainQueue() + repliesSoFar(), "");
}

TEST_F(ClientRequest, EscapesInPlainAttributesAndInDatAreDecoded) {
    clientProcessRequest(
        "@ipc.17\nmsg:c:create\\123ession\nid:c:a\\nb\n"
        "dat:json:{\"providerApplicationId\":\"caf\\u00e9\"}\n");
    EXPECT_EQ(drainQueue(), "type=1 app=caf\xC3\xA9 id=a\\nb client=@ipc.17 err=0\n");
}

// Damage to one part leaves the others as they are, and what is damaged counts as empty.
TEST_F(ClientRequest, DamagedRequestsGetWhatTheirIntactPartsDeserve) {
    const std::string noAppId = "type=1 app= id=1 client=@ipc.17 err=10002\n";
    const std::string created = "type=1 app=com.example.news id=1 client=@ipc.17 err=0\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"app_id_beside_dat", noAppId},
        {"app_id_is_number", noAppId},
        {"dat_is_array", noAppId},
        {"dat_is_text", noAppId},
        {"id_is_number", "type=1 app=com.example.news id= client=@ipc.17 err=0\n"},
        {"json", noAppId},
        {"line_without_colons", created},
        {"no_dat", noAppId},
        {"no_msg", ""},
        {"no_object_line", "type=1 app=com.example.news id=1 client= err=0\n"},
        {"second_object", created},
        {"twice", created},
    };
    EXPECT_EQ(cases.size(), goldenNames("requests_damaged_").size());
    for (const auto& [name, queued] : cases) {
        clientProcessRequest(golden("requests_damaged_" + name + ".txt").c_str());
        EXPECT_EQ(drainQueue(), queued) << name;
        EXPECT_EQ(repliesSoFar(), "") << name;
    }
}

TEST_F(ClientRequest, MissingApplicationIdIsLogged) {
    EXPECT_EQ(linesFor("requests_damaged_no_dat.txt"),
              "6 client id (connection id) @ipc.17\n"
              "6 msg [createSession]\n"
              "6 id [1].\n"
              "3 provider id not found!\n");
}

TEST_F(ClientRequest, NestingBeyondAnyRequestIsRefusedWithoutHarm) {
    const std::string deep(4000, '[');
    clientProcessRequest(
        ("@ipc.17\nmsg::createSession\nid::1\ndat:json:{\"providerApplicationId\":\"app\",\"x\":" +
         deep + std::string(4000, ']') + "}\n")
            .c_str());
    EXPECT_EQ(drainQueue(), "type=1 app= id=1 client=@ipc.17 err=10002\n");
}

// What a name does when one of its attributes is missing, empty or of another type than a string.
class RequestAttribute
    : public ClientsTest,
      public ::testing::WithParamInterface<std::tuple<std::string, std::string>> {
  protected:
    RequestAttribute() {
        serveObject();
        addSession(kApp, "@ipc.1");
    }

    std::string name() const { return std::get<0>(GetParam()); }

    // The forms in which the attribute named is of no use, as it stands in a line and in "dat".
    static std::vector<std::string> badLines(const std::string& attribute) {
        return {"",
                attribute + "::\n",
                attribute + ":n:5\n",
                attribute + ":b:true\n",
                attribute + ":json:{\"a\":\"b\"}\n",
                attribute + ":json:[\"a\"]\n",
                attribute + ":json:nonsense\n",
                attribute + ":unknown:a\n",
                attribute + ":a\n",
                attribute + "\n"};
    }
    static std::vector<std::string> badMembers(const std::string& attribute) {
        const std::string key = "\"" + attribute + "\":";
        return {"\"y\":1",    key + "\"\"",          key + "5",      key + "1.5", key + "true",
                key + "null", key + "{\"a\":\"b\"}", key + "[\"a\"]"};
    }

    static std::string extraMembers() { return ",\"ppgUrl\":\"http://h\",\"launchString\":\"l\""; }

    // What comes of the request: queued messages, then immediate replies.
    std::string outcome(const std::string& text) {
        clientProcessRequest(text.c_str());
        return drainQueue() + repliesSoFar();
    }

    // What the name does with everything in place, but for the id that it was given.
    std::string goodOutcome(const std::string& id) const {
        const std::string head = " app=" + kApp + " id=" + id + " client=@ipc.17 err=";
        if (name() == "createSession") {
            return "type=1" + head + "0\n";
        }
        if (name() == "createChannel") {
            return "type=7" + head + "0 url=http://h register\n";
        }
        if (name() == "destroyChannel") {
            return "@ipc.17\nmsg::onDestroyChannelComplete\nid::" + id + "\nerr:n:10106\n";
        }
        if (name() == "acceptPush" || name() == "rejectPush") {
            return "";
        }
        return name() == "other" ? "type=10" + head + "10104\n" : "type=4" + head + "0\n";
    }

    std::string withoutAppId() const {
        const std::string tail = " app= id=1 client=@ipc.17 err=10002";
        if (name() == "createSession") {
            return "type=1" + tail + "\n";
        }
        if (name() == "createChannel") {
            return "type=2" + tail + " token=\n";
        }
        return (name() == "destroyChannel" ? "type=3" : "type=10") + tail + "\n";
    }
};

TEST_P(RequestAttribute, UselessMsgIsAnEmptyMessage) {
    for (const std::string& msg : badLines("msg")) {
        clearRecordedLines();
        EXPECT_EQ(outcome("@ipc.17\n" + msg + "id::1\ndat:json:{\"providerApplicationId\":\"" +
                          kApp + "\"" + extraMembers() + "}\n"),
                  "")
            << msg;
        EXPECT_EQ(countRecorded(3, "Empty message received from [@ipc.17]."), 1) << msg;
    }
}

TEST_P(RequestAttribute, UselessIdIsEmptyAndTheRequestIsCarriedOut) {
    for (const std::string& id : badLines("id")) {
        clearRecordedLines();
        EXPECT_EQ(outcome("@ipc.17\nmsg::" + name() + "\n" + id +
                          "dat:json:{\"providerApplicationId\":\"" + kApp + "\"" + extraMembers() +
                          "}\n"),
                  goodOutcome(""))
            << id;
        EXPECT_TRUE(wasLogged(6, "id [].")) << id;
    }
}

TEST_P(RequestAttribute, UselessDatIsAMissingApplicationId) {
    for (const std::string& dat : badLines("dat")) {
        clearRecordedLines();
        EXPECT_EQ(outcome("@ipc.17\nmsg::" + name() + "\nid::1\n" + dat), withoutAppId()) << dat;
        EXPECT_EQ(countRecorded(3, "provider id not found!"), 1) << dat;
    }
}

TEST_P(RequestAttribute, UselessApplicationIdIsAMissingOne) {
    for (const std::string& appId : badMembers("providerApplicationId")) {
        clearRecordedLines();
        EXPECT_EQ(outcome("@ipc.17\nmsg::" + name() + "\nid::1\ndat:json:{" + appId +
                          extraMembers() + "}\n"),
                  withoutAppId())
            << appId;
        EXPECT_EQ(countRecorded(3, "provider id not found!"), 1) << appId;
    }
}

TEST_P(RequestAttribute, UselessExtraAttributeIsEmptyWhereTheNameWantsOne) {
    const std::string extra = std::get<1>(GetParam());
    const std::string begin = "@ipc.17\nmsg::" + name() +
                              "\nid::1\ndat:json:{\"providerApplicationId\":\"" + kApp + "\",";
    for (const std::string& member : badMembers(extra)) {
        const std::string expected =
            name() == "createChannel"
                ? "type=2 app=" + kApp + " id=1 client=@ipc.17 err=10102 token=\n"
            : name() == "registerToLaunch"
                ? "type=4 app=" + kApp + " id=1 client=@ipc.17 err=10101\n"
                : goodOutcome("1");
        EXPECT_EQ(outcome(begin + member + "}\n"), expected) << member;
    }
}

INSTANTIATE_TEST_SUITE_P(Names, RequestAttribute,
                         ::testing::Values(std::tuple("createSession", "ppgUrl"),
                                           std::tuple("createChannel", "ppgUrl"),
                                           std::tuple("destroyChannel", "ppgUrl"),
                                           std::tuple("registerToLaunch", "launchString"),
                                           std::tuple("unregisterFromLaunch", "launchString"),
                                           std::tuple("acceptPush", "ppgUrl"),
                                           std::tuple("rejectPush", "ppgUrl"),
                                           std::tuple("other", "ppgUrl")),
                         [](const auto& parameter) { return std::get<0>(parameter.param); });

// Cut and damaged at every byte: no crash, never two replies, always a line.
class DamagedRequest : public ClientsTest {
  protected:
    DamagedRequest() { serveObject(); }

    void carryOut(const std::string& text) {
        clearRecordedLines();
        clientProcessRequest(text.c_str());
        const std::string queued = drainQueue();
        const std::string replies = repliesSoFar();
        const auto lines = std::count(queued.begin(), queued.end(), '\n');
        const int answers = static_cast<int>(lines) + (replies.empty() ? 0 : 1);
        ASSERT_LE(answers, 1) << text << "\n" << queued << replies;
        ASSERT_NE(linesOf("request_reader.cpp"), "") << text;
    }
};

TEST_F(DamagedRequest, CutAtEveryByte) {
    addSession(kApp, kClient);
    for (const std::string& name : goldenNames("requests_")) {
        const std::string whole = golden(name);
        for (std::size_t length = 0; length <= whole.size(); ++length) {
            carryOut(whole.substr(0, length));
        }
    }
}

TEST_F(DamagedRequest, EveryByteReplaced) {
    addSession<QuilRegisterState>(kApp, kClient);
    for (const std::string& name : goldenNames("requests_")) {
        const std::string whole = golden(name);
        for (std::size_t at = 0; at < whole.size(); ++at) {
            for (const char byte : {'\xFF', ':', '@', '"', '{', '\\', '-', '\n', '\0'}) {
                std::string damaged = whole;
                damaged[at] = byte;
                carryOut(damaged);
            }
        }
    }
}

TEST_F(DamagedRequest, CutAtEveryByteOnTheDescriptor) {
    const std::string whole = golden("requests_create_session.txt");
    for (std::size_t length = 1; length <= whole.size(); ++length) {
        EXPECT_EQ(request(whole.substr(0, length)), static_cast<int>(length));
    }
    // Complete from the closing brace on, with and without the line feed behind it.
    const std::string good = "type=1 app=com.example.news id=1 client=@ipc.17 err=0\n";
    const std::string queued = drainQueue();
    EXPECT_TRUE(queued.ends_with("err=10002\n" + good + good)) << queued;
    EXPECT_EQ(queued.find("err=0"), queued.find(good) + good.find("err=0"));
}

// The whole way: request in, handler thread, reply out.
class RequestAndReply : public ClientsTest {
  protected:
    RequestAndReply() {
        serveObject();
        QuilDataManager::getInstance();
        msgHandlerInit();
    }

    // Carries out a request that has an answer, and checks that everything before it had none.
    void expectSilenceBefore() {
        request("@ipc.99\nmsg::createSession\nid::z\ndat:json:{\"providerApplicationId\":\"z\"}\n");
        EXPECT_EQ(nextReply(), "@ipc.99\nmsg::onCreateSessionComplete\nid::z\n");
    }
};

TEST_F(RequestAndReply, CreateSession) {
    request(golden("requests_create_session.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
}

TEST_F(RequestAndReply, CreateSessionAgainSucceeds) {
    request(golden("requests_create_session.txt"));
    nextReply();
    request(golden("requests_create_session.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_created.txt"));
}

TEST_F(RequestAndReply, CreateSessionWithoutApplicationIdIs500) {
    request(golden("requests_damaged_no_dat.txt"));
    EXPECT_EQ(nextReply(), golden("replies_session_not_created.txt"));
}

TEST_F(RequestAndReply, CreateChannelWithoutApplicationIdIs500) {
    request("@ipc.17\nmsg::createChannel\nid::1\n");
    EXPECT_EQ(nextReply(), golden("replies_channel_no_session.txt"));
}

TEST_F(RequestAndReply, DestroyChannelWithoutApplicationIdIs500) {
    request("@ipc.17\nmsg::destroyChannel\nid::1\n");
    EXPECT_EQ(nextReply(), golden("replies_channel_destroy_no_app_id.txt"));
}

TEST_F(RequestAndReply, OtherNamesWithoutApplicationIdGetNoReply) {
    for (const char* name :
         {"registerToLaunch", "unregisterFromLaunch", "acceptPush", "rejectPush", "nonsense"}) {
        request("@ipc.17\nmsg::" + std::string(name) + "\nid::1\n");
    }
    expectSilenceBefore();
}

TEST_F(RequestAndReply, UnknownNameGetsNoReply) {
    addSession(kApp, kClient);
    request(golden("requests_unknown_name.txt"));
    expectSilenceBefore();
    EXPECT_TRUE(wasLogged(3, "QuilMessageFactory::copyMessage returns NULL")) << recordedText();
}

TEST_F(RequestAndReply, ConnectionNoticesGetNoReply) {
    request(golden("requests_client_connected.txt"));
    request(golden("requests_client_gone.txt"));
    expectSilenceBefore();
}

TEST_F(RequestAndReply, CreateChannelWithoutSessionIs500) {
    request(golden("requests_create_channel.txt"));
    EXPECT_EQ(nextReply(), golden("replies_channel_no_session.txt"));
}

TEST_F(RequestAndReply, CreateChannelWithoutUrlIs10102) {
    addSession(kApp, kClient);
    request("@ipc.17\nmsg::createChannel\nid::1\ndat:json:{\"providerApplicationId\":\"" + kApp +
            "\"}\n");
    EXPECT_EQ(nextReply(), golden("replies_channel_empty_url.txt"));
}

// Kept on purpose: a failed registration reaches the application without "err".
TEST_F(RequestAndReply, CreateChannelWithAServerThatIsNotThereHasNoErrAndAnEmptyToken) {
    addSession(kApp, kClient);
    request("@ipc.17\nmsg::createChannel\nid::1\ndat:json:{\"providerApplicationId\":\"" + kApp +
            "\",\"ppgUrl\":\"http://127.0.0.1:1\"}\n");
    EXPECT_EQ(nextReply(30), golden("replies_channel_not_created.txt"));
}

TEST_F(RequestAndReply, DestroyChannelFailuresAreAnsweredAtOnce) {
    request(golden("requests_destroy_channel.txt"));
    EXPECT_EQ(repliesSoFar(), golden("replies_channel_destroy_no_session.txt"));
    QuilSession* session = addSession(kApp, kClient);
    request(golden("requests_destroy_channel.txt"));
    EXPECT_EQ(repliesSoFar(), golden("replies_channel_destroy_not_registered.txt"));
    session->enterState(std::make_unique<QuilDeleteState>());
    request(golden("requests_destroy_channel.txt"));
    EXPECT_EQ(repliesSoFar(), golden("replies_channel_destroy_wrong_state.txt"));
}

TEST_F(RequestAndReply, DestroyChannelWithAServerThatIsNotThereHasItsCode) {
    addSession<QuilRegisterState>(kApp, kClient)->setPpgUrl("http://127.0.0.1:1");
    request(golden("requests_destroy_channel.txt"));
    EXPECT_EQ(nextReply(30), golden("replies_channel_destroy_server_failure.txt"));
}

TEST_F(RequestAndReply, LaunchRequestsOfAKnownApplication) {
    addSession(kApp, kClient);
    request(golden("requests_register_to_launch.txt"));
    EXPECT_EQ(nextReply(), golden("replies_launch_done.txt"));
    request(golden("requests_unregister_from_launch.txt"));
    EXPECT_EQ(nextReply(), golden("replies_launch_done.txt"));
    request("@ipc.17\nmsg::registerToLaunch\nid::1\ndat:json:{\"providerApplicationId\":\"" + kApp +
            "\"}\n");
    EXPECT_EQ(nextReply(), golden("replies_launch_empty_string.txt"));
}

TEST_F(RequestAndReply, LaunchRequestsOfAnUnknownApplicationAre500) {
    request(golden("requests_register_to_launch.txt"));
    EXPECT_EQ(nextReply(), golden("replies_launch_no_session.txt"));
    request(golden("requests_unregister_from_launch.txt"));
    EXPECT_EQ(nextReply(), golden("replies_launch_no_session.txt"));
}

TEST_F(RequestAndReply, PushAnswersGetNoReply) {
    request(golden("requests_accept_push.txt"));
    request(golden("requests_reject_push.txt"));
    addSession(kApp, kClient);
    request(golden("requests_accept_push.txt"));
    request(golden("requests_reject_push.txt"));
    expectSilenceBefore();
}
