// The life of a client against a fake agent: what it asks for, in which order, and what it tells
// the application.

#include "quilclient/push_client.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <thread>

#include "tests/unit/client/fake_agent.hpp"

using namespace quilclient;
using namespace std::chrono_literals;

namespace {

const std::string kNoChannel =
    "dat:json:{\"registered\":0,\"listening\":0,\"port\":0,\"token\":\"\",\"ppgUrl\":\"\"}\n";

class Client : public ::testing::Test {
  protected:
    Client() {
        signal(SIGPIPE, SIG_IGN);
        m_config.appId = "com.app";
        m_config.ppgUrl = "http://ppg";
        m_config.requestTimeout = 10s;
        m_config.quietTime = 0ms;
        m_config.firstReconnect = 1ms;
        m_config.longestReconnect = 4ms;
        m_config.firstChannelRetry = 1ms;
        m_config.longestChannelRetry = 4ms;
        m_config.open = m_agent.opener();
        m_handlers.onPush = [this](const Push& push) {
            m_pushes.push_back(push);
            return m_answer;
        };
        m_handlers.onChannel = [this](const Result& result, const std::string& token) {
            m_log += "channel " + std::to_string(result.code) + " " + token + "\n";
        };
        m_handlers.onConnection = [this](const Result& result) {
            m_log += "connection " + std::to_string(result.code) + "\n";
        };
        m_handlers.onSimChange = [this] { m_log += "sim change\n"; };
        m_handlers.onLaunch = [this](const Result& result) {
            m_log += "launch " + std::to_string(result.code) + "\n";
        };
        m_handlers.onChannelDestroyed = [this](const Result& result) {
            m_log += "destroyed " + std::to_string(result.code) + "\n";
        };
        m_handlers.onNotice = [this](const std::string& words) { m_log += words + "\n"; };
    }

    PushClient& client() {
        if (!m_client) {
            m_client.emplace(m_config, m_handlers);
        }
        return *m_client;
    }

    // Dispatches until `isDone`, as an event loop would; false after a few seconds.
    template <typename Condition>
    bool drive(Condition isDone) {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (std::chrono::steady_clock::now() < deadline) {
            m_lastResult = client().dispatch();
            if (isDone()) {
                return true;
            }
            pollfd entry{client().descriptor(), POLLIN, 0};
            const auto pause = std::min<std::chrono::milliseconds>(client().untilDue(), 20ms);
            poll(&entry, 1, static_cast<int>(pause.count()));
        }
        return false;
    }

    // A request that the client has made, but for questions about the channel, which are answered
    // with m_channel unless that is empty.
    FakeRequest take() {
        FakeRequest request = m_agent.take();
        if (request.msg != "queryChannel") {
            return request;
        }
        ++m_questions;
        if (!m_channel.empty()) {
            m_agent.sendReply("onQueryChannelComplete", request.id, m_channel);
        }
        return {};
    }

    // The next such request.
    FakeRequest next() {
        FakeRequest request;
        drive([&] {
            request = take();
            return !request.msg.empty();
        });
        return request;
    }

    static std::string channelOf(bool isListening, const std::string& ppgUrl) {
        return std::string("dat:json:{\"registered\":1,\"listening\":") +
               (isListening ? "1" : "0") + R"(,"port":24010,"token":"2b","ppgUrl":")" + ppgUrl +
               "\"}\n";
    }

    void expectNothingMore() {
        client().dispatch();
        EXPECT_EQ(take().msg, "");
    }

    // Answers session and channel, as they are asked for.
    void makeReady() {
        const FakeRequest session = next();
        EXPECT_EQ(session.msg, "createSession");
        m_agent.sendReply("onCreateSessionComplete", session.id);
        const FakeRequest channel = next();
        EXPECT_EQ(channel.msg, "createChannel");
        m_agent.sendReply("onCreateChannelComplete", channel.id, "dat:json:{\"token\":\"2a\"}\n");
        EXPECT_TRUE(drive([this] { return client().isReady(); })) << m_log;
        m_log.clear();
    }

    FakeAgent m_agent;
    Config m_config;
    Handlers m_handlers;
    Answer m_answer = Answer::Accept;
    std::vector<Push> m_pushes;
    std::string m_log;
    Result m_lastResult;
    std::string m_channel = kNoChannel;
    int m_questions = 0;
    std::optional<PushClient> m_client;
};

}  // namespace

TEST_F(Client, CreatesSessionThenChannel) {
    const FakeRequest session = next();
    EXPECT_EQ(session.msg, "createSession");
    EXPECT_EQ(session.appId, "com.app");
    expectNothingMore();
    m_agent.sendReply("onCreateSessionComplete", session.id);
    const FakeRequest channel = next();
    EXPECT_EQ(channel.msg, "createChannel");
    EXPECT_EQ(channel.appId, "com.app");
    EXPECT_EQ(channel.ppgUrl, "http://ppg");
    EXPECT_FALSE(client().isReady());
    m_agent.sendReply("onCreateChannelComplete", channel.id, "dat:json:{\"token\":\"2a\"}\n");
    EXPECT_TRUE(drive([this] { return client().isReady(); }));
    EXPECT_EQ(m_log, "connection 0\nchannel 0 2a\n");
}

TEST_F(Client, ChannelThatStandsIsKept) {
    m_config.quietTime = 10s;
    m_channel = channelOf(true, "http://ppg");
    m_agent.sendReply("onCreateSessionComplete", next().id);
    EXPECT_EQ(next().msg, "") << "nothing but the question";
    EXPECT_EQ(m_questions, 1);
    EXPECT_TRUE(client().isReady());
    EXPECT_EQ(m_log, "connection 0\nchannel 0 2b\n");
}

TEST_F(Client, ChannelThatStandsOnADeviceWithoutPinIsKeptToo) {
    m_channel =
        R"(dat:json:{"registered":1,"listening":1,"port":1,"token":"","ppgUrl":"http://ppg"})"
        "\n";
    m_agent.sendReply("onCreateSessionComplete", next().id);
    EXPECT_EQ(next().msg, "");
    EXPECT_EQ(m_log, "connection 0\nchannel 0 \n");
}

TEST_F(Client, ChannelThatIsNotThereOrNotListeningIsAskedForAtOnce) {
    m_config.quietTime = 10s;
    for (const std::string& channel : {kNoChannel, channelOf(false, "http://ppg")}) {
        m_channel = channel;
        m_agent.sendReply("onCreateSessionComplete", next().id);
        EXPECT_EQ(next().msg, "createChannel") << channel;
        m_agent.hangUp();
    }
}

TEST_F(Client, ChannelOfAnotherPushServerIsReplacedWhenNothingWaitsAnyMore) {
    m_config.quietTime = 100ms;
    m_channel = channelOf(true, "http://other");
    m_agent.sendReply("onCreateSessionComplete", next().id);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(next().ppgUrl, "http://ppg");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 80ms);
}

TEST_F(Client, AgentThatDoesNotKnowTheQuestionIsAskedForTheChannelAfterAWhile) {
    m_config.requestTimeout = 50ms;
    m_channel = "";
    m_agent.sendReply("onCreateSessionComplete", next().id);
    EXPECT_EQ(next().msg, "createChannel");
    EXPECT_EQ(m_questions, 1);
}

TEST_F(Client, AnswerAboutAChannelThatIsNotWantedAnyMoreChangesNothing) {
    m_channel = "";
    m_agent.sendReply("onCreateSessionComplete", next().id);
    FakeRequest question;
    EXPECT_TRUE(drive([&] {
        question = m_agent.take();
        return question.msg == "queryChannel";
    }));
    EXPECT_TRUE(client().destroyChannel().ok());
    m_agent.sendReply("onQueryChannelComplete", question.id, channelOf(true, "http://ppg"));
    EXPECT_EQ(next().msg, "destroyChannel");
    EXPECT_FALSE(client().isReady());
    EXPECT_EQ(m_log, "connection 0\n");
}

TEST_F(Client, AnswerAboutAChannelFromBeforeASimChangeIsNotBelieved) {
    m_channel = "";
    m_agent.sendReply("onCreateSessionComplete", next().id);
    FakeRequest question;
    EXPECT_TRUE(drive([&] {
        question = m_agent.take();
        return question.msg == "queryChannel";
    }));
    m_agent.sendReply("onSimChange", "");
    m_agent.sendReply("onQueryChannelComplete", question.id, channelOf(true, "http://ppg"));
    EXPECT_EQ(next().msg, "createChannel");
}

// The agent may have been killed between telling the push server and saving that.
TEST_F(Client, ChannelWantedAgainAfterItWasDestroyedIsAskedForWithoutAQuestion) {
    makeReady();
    EXPECT_TRUE(client().destroyChannel().ok());
    m_agent.sendReply("onDestroyChannelComplete", next().id);
    EXPECT_TRUE(drive([this] { return m_log == "destroyed 0\n"; })) << m_log;
    const int questions = m_questions;
    EXPECT_TRUE(client().createChannel().ok());
    EXPECT_EQ(next().msg, "createChannel");
    EXPECT_EQ(m_questions, questions);
}

TEST_F(Client, ChannelIsAskedForOnceNoPushCameForAWhile) {
    m_config.quietTime = 100ms;
    m_channel = channelOf(true, "http://other");
    m_agent.sendReply("onCreateSessionComplete", next().id);
    for (int i = 0; i < 4; ++i) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(drive([&] {
            EXPECT_EQ(take().msg, "") << "asked though a push came just now";
            return std::chrono::steady_clock::now() - start > 50ms;
        }));
        EXPECT_LE(client().untilDue(), 100ms);
        m_agent.sendPush(std::to_string(i), "", false);
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(next().msg, "createChannel");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 80ms);
    EXPECT_EQ(m_pushes.size(), 4U);
}

TEST_F(Client, TimeThatTheApplicationTakesForAPushIsNoQuiet) {
    m_config.quietTime = 60ms;
    m_channel = channelOf(true, "http://other");
    m_handlers.onPush = [this](const Push& push) {
        std::this_thread::sleep_for(80ms);
        m_pushes.push_back(push);
        return m_answer;
    };
    m_agent.sendReply("onCreateSessionComplete", next().id);
    m_agent.sendPush("m1", "", true);
    EXPECT_TRUE(drive([this] { return m_pushes.size() == 1; }));
    EXPECT_GT(client().untilDue(), 30ms);
    EXPECT_EQ(next().msg, "acceptPush");
    EXPECT_EQ(next().msg, "createChannel");
}

TEST_F(Client, ChannelWantedAgainRightAfterTheSessionWaitsForQuietToo) {
    m_config.quietTime = 100ms;
    m_channel = channelOf(true, "http://other");
    m_agent.sendReply("onCreateSessionComplete", next().id);
    EXPECT_TRUE(drive([this] { return m_log == "connection 0\n"; }));
    EXPECT_TRUE(client().destroyChannel().ok());
    const FakeRequest destroy = next();
    EXPECT_EQ(destroy.msg, "destroyChannel");
    m_agent.hangUp();
    m_agent.sendReply("onCreateSessionComplete", next().id);
    EXPECT_TRUE(drive([this] { return m_log.ends_with("connection 0\n"); }));
    EXPECT_TRUE(client().createChannel().ok());
    expectNothingMore();
    EXPECT_EQ(next().msg, "createChannel");
}

TEST_F(Client, OwnRequestComingBackIsNoAgent) {
    EXPECT_EQ(next().msg, "createSession");
    const int before = m_agent.opens;
    m_agent.send("@ipc\n" + m_agent.lastText);
    EXPECT_TRUE(drive([&] { return m_agent.opens > before; }));
    EXPECT_EQ(m_log, "connection -12\n");
    makeReady();
}

TEST_F(Client, AnswerWithTheIdOfARequestAndAnotherNameIsNoAnswer) {
    const FakeRequest session = next();
    m_agent.sendReply("onCreateChannelComplete", session.id, "dat:json:{\"token\":\"2a\"}\n");
    m_agent.sendReply("", session.id);
    EXPECT_TRUE(drive([this] { return std::count(m_log.begin(), m_log.end(), '\n') == 2; }));
    EXPECT_EQ(m_log.find("connection"), std::string::npos) << m_log;
    m_agent.sendReply("onCreateSessionComplete", session.id);
    EXPECT_EQ(next().msg, "createChannel");
}

TEST_F(Client, AnswerToDestroyingMayBeCalledASimChange) {
    makeReady();
    EXPECT_TRUE(client().destroyChannel().ok());
    m_agent.sendReply("onSimChange", next().id);
    EXPECT_TRUE(drive([this] { return m_log == "sim change\ndestroyed 0\n"; })) << m_log;
}

TEST_F(Client, RefusesAConfigurationThatCannotWork) {
    m_config.ppgUrl = "";
    EXPECT_EQ(client().run().code, kBadArgument);
    EXPECT_EQ(client().dispatch().words, "ppgUrl is empty");
    EXPECT_EQ(m_agent.opens, 0);
}

TEST_F(Client, ChannelWithoutTokenIsReportedAndAskedForAgain) {
    const FakeRequest session = next();
    m_agent.sendReply("onCreateSessionComplete", session.id);
    const FakeRequest channel = next();
    m_agent.sendReply("onCreateChannelComplete", channel.id, "dat:json:{\"token\":\"\"}\n");
    const FakeRequest again = next();
    EXPECT_EQ(m_log, "connection 0\nchannel -5 \n");
    EXPECT_EQ(again.msg, "createSession");
    EXPECT_NE(again.id, session.id);
}

TEST_F(Client, RefusedSessionIsReportedWithItsCode) {
    m_agent.sendReply("onCreateSessionComplete", next().id, "err:n:500\n");
    EXPECT_EQ(next().msg, "createSession");
    EXPECT_EQ(m_log, "connection 0\nchannel 500 \n");
}

TEST_F(Client, UnansweredRequestTimesOutAndIsMadeAgain) {
    m_config.requestTimeout = 20ms;
    const FakeRequest first = next();
    const FakeRequest second = next();
    EXPECT_EQ(second.msg, "createSession");
    EXPECT_NE(second.id, first.id);
    EXPECT_EQ(m_log, "channel -3 \n") << "nobody who answered is no connection";
}

TEST_F(Client, ReconnectsWhenTheAgentGoesAwayAndComesBack) {
    makeReady();
    m_agent.openError = ENXIO;
    m_agent.send("-@ipc\n");
    const int before = m_agent.opens;
    EXPECT_TRUE(drive([&] { return m_agent.opens >= before + 3; }));
    EXPECT_FALSE(client().isReady());
    EXPECT_EQ(m_log, "connection -4\nconnection -9\n");
    m_agent.openError = 0;
    makeReady();
}

TEST_F(Client, ReconnectsWhenTheDescriptorEnds) {
    makeReady();
    m_agent.hangUp();
    makeReady();
}

TEST_F(Client, PausesBetweenAttemptsDoubleUpToTheBound) {
    m_config.firstReconnect = 1000ms;
    m_config.longestReconnect = 3000ms;
    m_agent.openError = ENXIO;
    client().dispatch();
    EXPECT_GT(client().untilDue(), 900ms);
    EXPECT_LE(client().untilDue(), 1000ms);
    client().dispatch();
    EXPECT_EQ(m_agent.opens, 1);
}

TEST_F(Client, MissingAgentIsToldOnce) {
    m_agent.openError = EACCES;
    EXPECT_TRUE(drive([this] { return m_agent.opens >= 4; }));
    EXPECT_EQ(m_log, "connection -7\n");
}

TEST_F(Client, HandsOverAPushAndAcceptsIt) {
    makeReady();
    m_agent.sendPush(" m1", "aGVsbG8=", true, "\"A\":\" 1\",\"A\":\" 2\"");
    const FakeRequest answer = next();
    EXPECT_EQ(answer.msg, "acceptPush");
    EXPECT_EQ(answer.id, " m1");
    EXPECT_EQ(answer.appId, "com.app");
    ASSERT_EQ(m_pushes.size(), 1U);
    EXPECT_EQ(m_pushes[0].id, " m1");
    EXPECT_EQ(m_pushes[0].data, "hello");
    EXPECT_TRUE(m_pushes[0].senderWaits);
    EXPECT_FALSE(m_pushes[0].isDuplicate);
    EXPECT_EQ(m_pushes[0].headers.size(), 2U);
}

TEST_F(Client, RejectsWhatTheHandlerRejects) {
    makeReady();
    m_answer = Answer::Reject;
    m_agent.sendPush("m1", "", true);
    EXPECT_EQ(next().msg, "rejectPush");
}

TEST_F(Client, RejectsPushesThatNobodyHandles) {
    m_handlers.onPush = nullptr;
    makeReady();
    m_agent.sendPush("m1", "", true);
    EXPECT_EQ(next().msg, "rejectPush");
}

TEST_F(Client, AnswersNobodyWhoDoesNotWait) {
    makeReady();
    m_agent.sendPush("m1", "aGVsbG8=", false);
    EXPECT_TRUE(drive([this] { return m_pushes.size() == 1; }));
    expectNothingMore();
}

TEST_F(Client, LaterAnswerIsTheApplications) {
    makeReady();
    m_answer = Answer::Later;
    m_agent.sendPush("m1", "", true);
    m_agent.sendPush("m2", "", true);
    EXPECT_TRUE(drive([this] { return m_pushes.size() == 2; }));
    expectNothingMore();
    EXPECT_TRUE(client().accept("m1").ok());
    EXPECT_TRUE(client().reject("m2").ok());
    EXPECT_EQ(next().msg, "acceptPush");
    EXPECT_EQ(next().msg, "rejectPush");
}

TEST_F(Client, AnswerWithoutAConnectionIsRefused) {
    EXPECT_EQ(client().accept("m1").code, kNotConnected);
}

TEST_F(Client, KnowsAPushThatCameBeforeAlsoAfterAReconnect) {
    makeReady();
    m_agent.sendPush("m1", "", false);
    m_agent.sendPush("m2", "", false);
    m_agent.sendPush("m1", "", false);
    EXPECT_TRUE(drive([this] { return m_pushes.size() == 3; }));
    m_agent.hangUp();
    makeReady();
    m_agent.sendPush("m2", "", false);
    EXPECT_TRUE(drive([this] { return m_pushes.size() == 4; }));
    EXPECT_FALSE(m_pushes[0].isDuplicate);
    EXPECT_FALSE(m_pushes[1].isDuplicate);
    EXPECT_TRUE(m_pushes[2].isDuplicate);
    EXPECT_TRUE(m_pushes[3].isDuplicate);
}

TEST_F(Client, DamagedPushIsRejectedAndNoted) {
    makeReady();
    m_agent.sendPush("m1", "?", true);
    EXPECT_EQ(next().msg, "rejectPush");
    EXPECT_TRUE(m_pushes.empty());
    EXPECT_EQ(m_log, "push 'm1' came without readable data\n");
}

TEST_F(Client, PushesBeforeTheChannelIsReadyAreHandedOver) {
    m_agent.sendReply("onCreateSessionComplete", next().id);
    EXPECT_EQ(next().msg, "createChannel");
    m_agent.sendPush("m1", "", false);
    EXPECT_TRUE(drive([this] { return m_pushes.size() == 1; }));
}

TEST_F(Client, ManyMessagesInOneReadAreAllHandled) {
    makeReady();
    std::string text;
    for (int i = 0; i < 10; ++i) {
        text += "@ipc\nmsg::pushNotification\nid::" + std::to_string(i) +
                "\ndat:json:{\"appLevelAck\":0,\"data\":\"\"}\n";
    }
    m_agent.send(text);
    EXPECT_TRUE(drive([this] { return m_pushes.size() == 10; }));
    EXPECT_EQ(m_pushes[9].id, "9");
}

TEST_F(Client, SimChangeIsReportedThoughAddressedToNobody) {
    makeReady();
    m_agent.sendReply("onSimChange", "");
    const FakeRequest again = next();
    EXPECT_EQ(m_log, "sim change\n");
    EXPECT_EQ(again.msg, "createChannel");
}

TEST_F(Client, SimChangeBeforeTheChannelDisturbsNothing) {
    const FakeRequest session = next();
    m_agent.sendReply("onSimChange", "");
    EXPECT_TRUE(drive([this] { return m_log.find("sim") != std::string::npos; }));
    expectNothingMore();
    m_agent.sendReply("onCreateSessionComplete", session.id);
    EXPECT_EQ(next().msg, "createChannel");
}

TEST_F(Client, LaunchStringIsSetOnceThereIsASessionAndWithEveryNewOne) {
    EXPECT_TRUE(client().setLaunchString("app://x").ok());
    for (int round = 0; round < 2; ++round) {
        m_agent.sendReply("onCreateSessionComplete", next().id);
        const FakeRequest launch = next();
        EXPECT_EQ(launch.msg, "registerToLaunch");
        EXPECT_EQ(launch.launchString, "app://x");
        EXPECT_EQ(next().msg, "createChannel");
        m_log.clear();
        m_agent.sendReply("", launch.id);
        EXPECT_TRUE(drive([this] { return !m_log.empty(); }));
        EXPECT_EQ(m_log, "launch 0\n");
        m_agent.hangUp();
    }
}

TEST_F(Client, LaunchStringIsCleared) {
    makeReady();
    EXPECT_TRUE(client().clearLaunchString().ok());
    const FakeRequest launch = next();
    EXPECT_EQ(launch.msg, "unregisterFromLaunch");
    m_agent.sendReply("", launch.id, "err:n:500\n");
    EXPECT_TRUE(drive([this] { return m_log == "launch 500\n"; })) << m_log;
}

TEST_F(Client, BadLaunchStringsAreRefusedAtOnce) {
    EXPECT_EQ(client().setLaunchString("").code, kBadArgument);
    EXPECT_EQ(client().setLaunchString(std::string(9000, 'x')).code, kBadArgument);
}

TEST_F(Client, DestroyedChannelStaysAwayAfterAReconnect) {
    makeReady();
    EXPECT_TRUE(client().destroyChannel().ok());
    EXPECT_FALSE(client().isReady());
    const FakeRequest destroy = next();
    EXPECT_EQ(destroy.msg, "destroyChannel");
    m_agent.sendReply("onDestroyChannelComplete", destroy.id);
    EXPECT_TRUE(drive([this] { return m_log == "destroyed 0\n"; })) << m_log;
    m_agent.hangUp();
    m_agent.sendReply("onCreateSessionComplete", next().id);
    expectNothingMore();
    EXPECT_TRUE(client().createChannel().ok());
    EXPECT_EQ(next().msg, "createChannel");
}

TEST_F(Client, ChannelWantedAgainWaitsForTheEndOfDestroying) {
    makeReady();
    EXPECT_TRUE(client().destroyChannel().ok());
    EXPECT_TRUE(client().createChannel().ok());
    const FakeRequest destroy = next();
    EXPECT_EQ(destroy.msg, "destroyChannel");
    expectNothingMore();
    m_agent.sendReply("onDestroyChannelComplete", destroy.id);
    EXPECT_EQ(next().msg, "createChannel");
}

TEST_F(Client, DestroyingWaitsForTheEndOfCreating) {
    m_agent.sendReply("onCreateSessionComplete", next().id);
    const FakeRequest create = next();
    EXPECT_TRUE(client().destroyChannel().ok());
    expectNothingMore();
    m_agent.sendReply("onCreateChannelComplete", create.id, "dat:json:{\"token\":\"2a\"}\n");
    EXPECT_EQ(next().msg, "destroyChannel");
    EXPECT_FALSE(client().isReady());
}

TEST_F(Client, DestroyingAChannelThatWasNotCreatedIsDone) {
    m_agent.sendReply("onCreateSessionComplete", next().id);
    const FakeRequest create = next();
    EXPECT_TRUE(client().destroyChannel().ok());
    m_agent.sendReply("onCreateChannelComplete", create.id, "dat:json:{\"token\":\"\"}\n");
    EXPECT_TRUE(drive([this] { return m_log == "connection 0\ndestroyed 0\n"; })) << m_log;
}

TEST_F(Client, DestroyCutOffByTheAgentsEndIsReported) {
    makeReady();
    EXPECT_TRUE(client().destroyChannel().ok());
    m_agent.hangUp();
    EXPECT_TRUE(drive([this] { return m_log == "connection -4\ndestroyed -4\n"; })) << m_log;
}

TEST_F(Client, AnswerToNoRequestIsNoted) {
    makeReady();
    m_agent.sendReply("onCreateChannelComplete", "99", "err:n:1\n");
    EXPECT_TRUE(drive([this] { return !m_log.empty(); }));
    EXPECT_EQ(m_log,
              "an answer to no open request came: msg 'onCreateChannelComplete', id '99', err 1\n");
}

TEST_F(Client, DamagedMessageIsNotedAndTheNextOneHandled) {
    makeReady();
    m_agent.send("@ipc\nthis is no attribute\n");
    m_agent.sendPush("m1", "", false);
    EXPECT_TRUE(drive([this] { return m_pushes.size() == 1; }));
    EXPECT_EQ(m_log.find("a message of the agent is damaged\n"), 0U) << m_log;
}

TEST_F(Client, MessageWithoutAnEndIsCutOff) {
    makeReady();
    const std::string chunk(100000, 'x');
    m_agent.send("@ipc\n");
    for (int i = 0; i < 20 && m_log.empty(); ++i) {
        m_agent.send(chunk);
        client().dispatch();
    }
    EXPECT_EQ(m_log, "connection -4\n");
}

TEST_F(Client, ThrowingHandlerEndsRunAfterTheOtherMessages) {
    int calls = 0;
    m_handlers.onPush = [&](const Push&) -> Answer {
        if (++calls == 1) {
            throw std::runtime_error("no disk");
        }
        return Answer::Accept;
    };
    makeReady();
    m_agent.sendPush("m1", "", true);
    m_agent.sendPush("m2", "", true);
    EXPECT_TRUE(drive([&] { return calls == 2; }));
    EXPECT_EQ(m_lastResult.code, kHandlerThrew);
    EXPECT_EQ(m_lastResult.words, "no disk");
    EXPECT_EQ(next().msg, "rejectPush");
    EXPECT_EQ(next().msg, "acceptPush");
}

TEST_F(Client, StopFromAnotherThreadEndsRun) {
    std::thread stopper([this] { client().stop(); });
    stopper.join();
    EXPECT_TRUE(client().run().ok());
    std::thread late([this] {
        std::this_thread::sleep_for(10ms);
        client().stop();
    });
    EXPECT_TRUE(client().run().ok());
    late.join();
}

TEST_F(Client, StopFromAHandlerEndsRun) {
    m_agent.openError = EACCES;
    m_handlers.onConnection = [this](const Result&) { client().stop(); };
    EXPECT_TRUE(client().run().ok());
    EXPECT_EQ(m_agent.opens, 1);
}

TEST_F(Client, FullQueueOfTheAgentOnlyDelaysRequests) {
    makeReady();
    int accepted = 0;
    while (client().accept("p" + std::to_string(accepted)).ok()) {
        ++accepted;
    }
    EXPECT_EQ(client().accept("x").code, kQueueFull);
    EXPECT_LE(client().untilDue(), 50ms);
    EXPECT_TRUE(client().hasUnsent());
    int arrived = 0;
    EXPECT_TRUE(drive([&] {
        while (m_agent.take().msg == "acceptPush") {
            ++arrived;
        }
        return arrived == accepted;
    })) << arrived
        << " of " << accepted;
    EXPECT_FALSE(client().hasUnsent());
}

TEST_F(Client, DescriptorStaysTheSameForLife) {
    const int descriptor = client().descriptor();
    makeReady();
    m_agent.hangUp();
    makeReady();
    EXPECT_EQ(client().descriptor(), descriptor);
    EXPECT_GT(client().untilDue(), 1h);
}
