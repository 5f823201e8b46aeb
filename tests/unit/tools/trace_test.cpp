// Pushes and channels followed through the agent's log.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "tools/quilctl/log_line.hpp"
#include "tools/quilctl/log_tracer.hpp"

namespace {

// A traced log, rendered: one line per push and channel. Each line of the log is a second later.
class Tracing : public ::testing::Test {
  protected:
    Tracing() {
        m_tracer.pushes.onEnd = [this](const PushTrace& push) {
            m_shown += push.appId + " '" + push.id + "' " + std::to_string(push.bytes) + " " +
                       (push.wasDelivered ? "delivered " : "") + push.answer + push.trouble + "\n";
            m_last = push;
        };
        m_tracer.channels.onEnd = [this](const ChannelTrace& channel) {
            m_shown += channel.appId + (channel.isDestroying ? " destroy" : " create") +
                       (channel.isGood() ? " good" : " bad ") + channel.trouble + "\n";
            m_lastChannel = channel;
        };
    }

    void log(std::initializer_list<const char*> lines) {
        for (const char* line : lines) {
            m_tracer.take(line, m_time++);
        }
    }

    void receive(const char* app, const char* bytes) {
        log({(std::string("quilAgentLoop: Port 1 receiving data for App id [") + app + "]").c_str(),
             (std::string("serverIfProcessData 1: recved [") + bytes + "] bytes of data").c_str(),
             "quilAgentLoop: serverIfProcessData port [1] fd[9]"});
    }

    // A connection whose push is not in when it is accepted.
    void setAside(const char* app) {
        log({(std::string("quilAgentLoop: Port 1 receiving data for App id [") + app + "]").c_str(),
             "quilAgentLoop: serverIfProcessData port [1] fd[9]",
             "quilAgentLoop: All the valid ports are"});
    }

    void deliver(const char* id, const std::string& app = "a") {
        log({"5 received", ("app id[" + app + "] clientId[@ipc.1]").c_str(),
             "sendMessage: Callback [pushNotification] for client id[@ipc.1] err[0] has data[1]"});
        if (id != nullptr) {
            log({(std::string("addData: name [Push-Message-ID] value[") + id + "]").c_str()});
        }
        log({"Wrote 144 bytes to pps."});
    }

    void answer(const char* verb, const char* id) {
        log({(std::string(verb) + " called and Push id [" + id + "].").c_str(),
             "quilAgentLoop: All the valid ports are"});
    }

    void keep(const char* id, const char* result) {
        log({(std::string("QuilSession::addPushSocket: adding push id[") + id + "] socket [260]")
                 .c_str(),
             (std::string("QuilSession::addPushSocket: return_code = ") + result).c_str()});
    }

    void createChannel(std::initializer_list<const char*> lines) {
        log({"addMessage: msg type[7] provider id[a] errorCode[0]", "7 received",
             "app id[a] clientId[@ipc.1]"});
        log(lines);
        log({"addMessage: msg type[2] provider id[a] errorCode[0]"});
    }

    LogTracer m_tracer;
    std::string m_shown;
    PushTrace m_last;
    ChannelTrace m_lastChannel;
    double m_time = 100;
};

}  // namespace

TEST(LogLines, AreTakenApart) {
    const auto line = parseLogLine("Nov 21 10:20:30 host quilagent[7]: QUIL:a.cpp(5): text): more");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->text, "text): more");
    EXPECT_FALSE(parseLogLine("QUIL:a.cpp(5): at 10:20:30")->time.has_value());
    EXPECT_FALSE(parseLogLine("something else").has_value());
    EXPECT_FALSE(parseLogLine("QUIL:a.cpp(5)").has_value());
}

TEST(LogLines, HaveTheTimeThatStandsInFront) {
    const auto secondsOf = [](const std::string& front) {
        const auto line = parseLogLine(front + "QUIL:a.cpp(5): x");
        return line && line->time ? line->time->seconds : -1;
    };
    constexpr double kDay = 86400;
    constexpr double kDayTime = 10 * 3600 + 20 * 60 + 30;
    constexpr double k20261122 = 20779 * kDay;
    EXPECT_EQ(secondsOf("10:20:30 "), kDayTime);
    EXPECT_NEAR(secondsOf("[10:20:30,125] "), kDayTime + 0.125, 1e-6);
    EXPECT_EQ(secondsOf("2026-11-22T10:20:30+0100 host quilagent[12]: "), k20261122 + kDayTime);
    EXPECT_EQ(secondsOf("2026-11-22 10:20:30 "), k20261122 + kDayTime);
    EXPECT_NEAR(secondsOf("2026-11-22T10:20:30.25+01:00 "), k20261122 + kDayTime + 0.25, 1e-5);
    EXPECT_EQ(secondsOf("Nov 22 10:20:30 host quilagent[12]: ") -
                  secondsOf("Nov  2 10:20:30 host quilagent[12]: "),
              20 * kDay);
    EXPECT_NEAR(secondsOf("[ 1234.567890] host quilagent[12]: "), 1234.56789, 1e-6);
    EXPECT_EQ(secondsOf("<30>"), -1);
    EXPECT_EQ(secondsOf("2026-99-22 "), -1);
}

TEST(LogLines, OfUnixTimesAreShownInLocalTime) {
    setenv("TZ", "UTC-2", 1);
    tzset();
    const auto line = parseLogLine("1795341600.25 host quilagent[12]: QUIL:a.cpp(5): x");
    ASSERT_TRUE(line && line->time);
    EXPECT_NEAR(line->time->seconds, 1795341600.25 + 7200, 1e-5);
}

TEST(LogLines, GoOnOverMidnightAndNewYear) {
    constexpr double kDay = 86400;
    RunningTime bare;
    const double before = bare.next({kDay - 1, kDay});
    EXPECT_EQ(bare.next({1, kDay}) - before, 2);
    EXPECT_EQ(bare.next({0.5, kDay}) - before, 1.5);  // another thread's line, a little late
    RunningTime syslog;
    const auto at = [&syslog](const char* text) { return syslog.next(*parseLogLine(text)->time); };
    const double evening = at("Dec 31 23:59:59 h q[1]: QUIL:a.cpp(5): x");
    EXPECT_EQ(at("Jan  1 00:00:01 h q[1]: QUIL:a.cpp(5): x") - evening, 2);
}

TEST_F(Tracing, FollowsAPushFromReceptionToAnswer) {
    receive("a", "69");
    deliver(" m1");
    answer("acceptPush", " m1");
    EXPECT_EQ(m_shown, "a ' m1' 69 delivered accepted\n");
    EXPECT_EQ(*m_last.queued - *m_last.received, 2);
    EXPECT_EQ(*m_last.taken - *m_last.queued, 1);
    EXPECT_EQ(*m_last.delivered - *m_last.taken, 4);
    EXPECT_EQ(*m_last.answered - *m_last.delivered, 1);
    EXPECT_EQ(*m_last.closed - *m_last.answered, 1);
}

TEST_F(Tracing, KeepsTheOrderOfTheQueue) {
    receive("a", "1");
    receive("b", "2");
    deliver("m1");
    deliver("m2", "b");
    answer("rejectPush", "m2");
    answer("acceptPush", "m1");
    EXPECT_EQ(m_shown, "b 'm2' 2 delivered rejected\na 'm1' 1 delivered accepted\n");
}

TEST_F(Tracing, FollowsAPushThatWasSetAside) {
    setAside("a");
    receive("a", "66");
    deliver("m1");
    answer("acceptPush", "m1");
    m_tracer.finish();
    EXPECT_EQ(m_shown, "a 'm1' 66 delivered accepted\n");
}

TEST_F(Tracing, TellsAPushFromOneThatPassesIt) {
    receive("a", "66");  // only its beginning
    receive("b", "2");
    deliver("m2", "b");
    answer("acceptPush", "m2");
    deliver("m1", "a");
    answer("acceptPush", "m1");
    EXPECT_EQ(m_shown, "b 'm2' 2 delivered accepted\na 'm1' 66 delivered accepted\n");
}

TEST_F(Tracing, TellsOfAPushThatDidNotComeInInTime) {
    receive("b", "1");
    receive("a", "66");
    log({"serverIfProcessData: push for app id [a] not complete after 30 seconds"});
    EXPECT_EQ(m_shown, "a '' 66 push for app id [a] not complete after 30 seconds\n");
    m_shown.clear();
    setAside("c");
    log({"setAside: push for app id [c] given up: of 64 that wait it has been silent longest"});
    EXPECT_EQ(m_shown.substr(0, 35), "c '' -1 push for app id [c] given u");
}

// A log may begin in the middle of it.
TEST_F(Tracing, FollowsAPushWhoseBeginningIsNotInTheLog) {
    deliver("m1");
    answer("acceptPush", "m1");
    EXPECT_EQ(m_shown, "a 'm1' -1 delivered accepted\n");
}

TEST_F(Tracing, FollowsChannelsThatAreMadeAtTheSameTime) {
    for (const char* line :
         {"addMessage: msg type[7] provider id[a] errorCode[0]",
          "addMessage: msg type[7] provider id[b] errorCode[0]",
          "addMessage: msg type[7] provider id[c] errorCode[0]", "7 received",
          "app id[a] clientId[@ipc.1]", "7 received", "app id[b] clientId[@ipc.2]", "7 received",
          "app id[c] clientId[@ipc.2]",
          " Provider app id [b] current state[Create] next state[Register]",
          "addMessage: msg type[2] provider id[b] errorCode[0]", "2 received",
          "app id[b] clientId[@ipc.2]",
          "HTTP Transport failure: rc [7] HTTP Status[0] "
          "url[http://x/mss/PD_subReg?serviceid=c&osversion=1&model=2]",
          " Provider app id [a] current state[Create] next state[Register]",
          "addMessage: msg type[2] provider id[a] errorCode[0]",
          "addMessage: msg type[2] provider id[c] errorCode[0]"}) {
        log({line});
    }
    EXPECT_EQ(m_shown,
              "b create good\na create good\n"
              "c create bad HTTP Transport failure: " +
                  std::string(curl_easy_strerror(CURLE_COULDNT_CONNECT)) +
                  " (libcurl's number 7), "
                  "url[http://x/mss/PD_subReg?serviceid=c&osversion=1&model=2]\n");
}

TEST_F(Tracing, FindsPushesWithMadeUpIds) {
    receive("a", "1");
    deliver(nullptr);
    answer("acceptPush", "a12345");
    EXPECT_EQ(m_shown, "a 'a12345' 1 delivered accepted\n");
}

TEST_F(Tracing, TellsWhatIsUnderWayAtTheEnd) {
    receive("a", "1");
    deliver("m1");
    receive("b", "2");
    m_tracer.finish();
    EXPECT_EQ(m_shown, "a 'm1' 1 delivered \nb '' 2 \n");
}

TEST_F(Tracing, KnowsWhenNobodyWaits) {
    log({"quilAgentLoop: Port 1 receiving data for App id [a]",
         "serverIfProcessData 1: recved [5] bytes of data", "close new socket ret. [0]",
         "quilAgentLoop: serverIfProcessData port [1] fd[9]"});
    deliver("m1");
    EXPECT_EQ(m_shown, "a 'm1' 5 delivered \n");
    EXPECT_TRUE(m_last.nobodyWaits);
}

TEST_F(Tracing, TellsOfPushesThatNobodyGets) {
    receive("a", "1");
    log({"5 received", "app id[a] clientId[@ipc.1]", "1 received"});
    receive("a", "2");
    log({"5 received", "pushNotification: id[m2] error code[10109]", "1 received"});
    log({"quilAgentLoop: Port 1 receiving data for App id [a]",
         "serverIfProcessData: push for app id [a] not complete after 30 seconds",
         "quilAgentLoop: serverIfProcessData port [1] fd[9]"});
    EXPECT_EQ(m_shown,
              "a '' 1 closed undelivered: the session has no channel\n"
              "a 'm2' 2 refused with code 10109: a push could not be turned into base64: empty or "
              "too long, so it was closed\n"
              "a '' -1 push for app id [a] not complete after 30 seconds\n");
}

TEST_F(Tracing, FollowsAChannel) {
    log({"addMessage: msg type[7] provider id[a] errorCode[0]", "7 received",
         "app id[a] clientId[@ipc.1]",
         " Provider app id [a] current state[Create] next state[Register]",
         "addMessage: msg type[2] provider id[a] errorCode[0]"});
    EXPECT_EQ(m_shown, "a create good\n");
    EXPECT_EQ(*m_lastChannel.taken - *m_lastChannel.requested, 2);
    EXPECT_EQ(*m_lastChannel.ended - *m_lastChannel.taken, 2);
}

TEST_F(Tracing, TellsWhyAChannelFailed) {
    log({"addMessage: msg type[7] provider id[a] errorCode[0]", "7 received",
         "app id[a] clientId[@ipc.1]",
         "HTTP Transport failure: rc [0] HTTP Status[404] url[http://x]",
         "addMessage: msg type[2] provider id[a] errorCode[0]"});
    log({"addMessage: msg type[8] provider id[a] errorCode[0]", "8 received",
         "app id[a] clientId[@ipc.1]", "addMessage: msg type[3] provider id[a] errorCode[10103]"});
    EXPECT_EQ(m_shown,
              "a create bad HTTP Transport failure: status 404, url[http://x]\n"
              "a destroy bad 10103, the push server did not answer, or not with HTTP status 200\n");
}

// With -v the log tells what became of the connection.
TEST_F(Tracing, NamesThePushWhoseIdIsInUse) {
    for (const char* result : {"1", "0"}) {
        receive("a", "68");
        log({"5 received", "app id[a] clientId[@ipc.1]"});
        keep(" m1", result);
        log({"sendMessage: Callback [pushNotification] for client id[@ipc.1] err[0] has data[1]",
             "addData: name [Push-Message-ID] value[ m1]", "Wrote 144 bytes to pps."});
    }
    EXPECT_EQ(m_shown, "a ' m1' 68 delivered its id was in use: its connection was closed\n");
    m_shown.clear();
    answer("acceptPush", " m1");
    EXPECT_EQ(m_shown, "a ' m1' 68 delivered accepted\n");
}

// With -v: the session kept the connection of the second, so the first one's was let go.
TEST_F(Tracing, CallsThePushOfASenderThatHadHungUpSentAgain) {
    for (int i = 0; i < 2; ++i) {
        receive("a", "68");
        log({"5 received", "app id[a] clientId[@ipc.1]"});
        keep(" m1", "1");
        log({"sendMessage: Callback [pushNotification] for client id[@ipc.1] err[0] has data[1]",
             "addData: name [Push-Message-ID] value[ m1]", "Wrote 144 bytes to pps."});
    }
    EXPECT_EQ(m_shown, "a ' m1' 68 delivered its sender had hung up; sent again\n");
    EXPECT_FALSE(m_last.sharesId);
    m_shown.clear();
    answer("acceptPush", " m1");
    EXPECT_EQ(m_shown, "a ' m1' 68 delivered accepted\n");
    EXPECT_EQ(answerOf(m_last), "accepted");
}

TEST_F(Tracing, LetsAPushOfAnotherApplicationKeepItsId) {
    for (const char* app : {"a", "b"}) {
        receive(app, "68");
        log({"5 received", (std::string("app id[") + app + "] clientId[@ipc.1]").c_str()});
        keep(" m1", "1");
        log({"sendMessage: Callback [pushNotification] for client id[@ipc.1] err[0] has data[1]",
             "addData: name [Push-Message-ID] value[ m1]", "Wrote 144 bytes to pps."});
    }
    EXPECT_EQ(m_shown, "");
}

// Without -v nothing tells whether the first sender still waited: one connection has the answer,
// and the answer to the other delivery finds none.
TEST_F(Tracing, LeavesOpenWhichPushOfAnIdWasAnswered) {
    receive("a", "1");
    deliver(" m1");
    receive("a", "2");
    deliver(" m1");
    answer("acceptPush", " m1");
    EXPECT_EQ(m_shown, "a ' m1' 1 delivered accepted\na ' m1' 2 delivered accepted\n");
    EXPECT_EQ(answerOf(m_last),
              "accepted: this one or another of its id, a log with -v tells which");
    m_shown.clear();
    log({"acceptPush called and Push id [ m1].", "providerAppID is a\n",
         "Failed to find pushId[ m1]", "quilAgentLoop: All the valid ports are"});
    EXPECT_EQ(m_shown, "");
}

TEST_F(Tracing, SaysOfAllPushesOfAnIdThatNobodyWaitedForTheAnswer) {
    for (int i = 0; i < 2; ++i) {
        receive("a", "1");
        deliver("m1");
    }
    log({"acceptPush called and Push id [m1].", "providerAppID is a\n", "Failed to find pushId[m1]",
         "quilAgentLoop: All the valid ports are"});
    EXPECT_EQ(m_shown,
              "a 'm1' 1 delivered acceptednobody waited for the answer\n"
              "a 'm1' 1 delivered acceptednobody waited for the answer\n");
}

TEST_F(Tracing, SaysThatAnIdIsSharedOnlyWithinAnApplication) {
    receive("a", "1");
    deliver("m1");
    receive("b", "2");
    deliver("m1", "b");
    m_tracer.pushes.onEnd = [this](const PushTrace& push) { m_shown += push.sharesId ? "y" : "n"; };
    receive("a", "3");
    deliver("m1");
    m_tracer.finish();
    EXPECT_EQ(m_shown, "nny");
}

TEST_F(Tracing, GivesAnAnswerToTheApplicationThatItNames) {
    receive("a", "1");
    deliver("m1");
    receive("b", "2");
    deliver("m1", "b");
    log({"rejectPush called and Push id [m1].", "providerAppID is b\n",
         "quilAgentLoop: All the valid ports are"});
    EXPECT_EQ(m_shown, "b 'm1' 2 delivered rejected\n");
}

TEST_F(Tracing, TellsOfPushesWhoseConnectionIsLetGo) {
    for (const char* id : {"m1", "m2"}) {
        receive("a", "1");
        deliver(id);
    }
    log({"QuilSession: sender of push id[m2] hung up, let go"});
    EXPECT_EQ(m_shown, "a 'm2' 1 delivered not answered: its sender hung up\n");
    m_shown.clear();
    receive("a", "2");
    log({"5 received", "app id[a] clientId[@ipc.1]",
         "QuilSession::addPushSocket: oldest push id[m1] given up: 8192 wait for an answer"});
    EXPECT_EQ(m_shown, "a 'm1' 1 delivered closed without an answer: too many wait\n");
}

TEST_F(Tracing, ForgetsTheOldestOfManyPushesThatAreNotAnswered) {
    for (int i = 0; i <= 16384; ++i) {
        receive("a", "1");
        deliver(std::to_string(i).c_str());
    }
    EXPECT_EQ(m_shown, "a '0' 1 delivered \n");
}

TEST_F(Tracing, ShowsAFailedBindAtItsChannel) {
    createChannel({"Failed to bind KVTP server socket: address='::1:4400', error='in use'",
                   "Error opening port 4400", "providerAppID is a\n",
                   " Provider app id [a] current state[Create] next state[Register]"});
    EXPECT_EQ(m_shown,
              "a create bad Error opening port 4400: Failed to bind KVTP server socket: "
              "address='::1:4400', error='in use'\n");
    EXPECT_EQ(outcomeOf(m_lastChannel).substr(0, 46),
              "channel created, but nobody listens: Error ope");
}

TEST_F(Tracing, ShowsAFailedBindAtTheSavedSession) {
    log({"Failed to bind KVTP server socket: address='::1:4400', error='in use'",
         "Error opening port 4400", "QuilSessionManager::addSavedSession -> added key [a]\n",
         "QuilSessionManager::addSavedSession -> added key [b]\n"});
    EXPECT_EQ(m_lastChannel.appId, "a");
    EXPECT_TRUE(m_lastChannel.isRestored);
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel of before, but nobody listens: Error opening port 4400: Failed to bind KVTP "
              "server socket: address='::1:4400', error='in use'");
    createChannel({" Provider app id [a] current state[Create] next state[Register]"});
    EXPECT_EQ(outcomeOf(m_lastChannel), "channel created");
}

TEST_F(Tracing, ShowsNoChannelWithoutAPin) {
    createChannel({" Provider app id [a] current state[Create] next state[Register]",
                   "Open [/pps/system/nvram/deviceinfo] returns fd[-1]",
                   "Open [/pps/system/nvram/deviceinfo] errno[2] error[No such file]"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel not created: the device has no PIN (/pps/system/nvram/deviceinfo: No such "
              "file)");
    EXPECT_FALSE(m_lastChannel.isGood());
    createChannel({" Provider app id [a] current state[Create] next state[Register]",
                   "looking for [PIN]", "Read [/pps/system/nvram/deviceinfo] returns [31] bytes",
                   "Read [/pps/system/nvram/deviceinfo] returns [0] bytes",
                   "Read [/pps/system/nvram/deviceinfo] errno[0] error[Success]"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel not created: the device has no PIN (/pps/system/nvram/deviceinfo: no "
              "attribute PIN)");
}

// The model is read from the same object, by another channel's registration.
TEST_F(Tracing, TakesNoOtherValueForThePin) {
    createChannel({" Provider app id [a] current state[Create] next state[Register]",
                   "looking for [HardwareID]",
                   "Read [/pps/system/nvram/deviceinfo] errno[0] error[Success]"});
    EXPECT_EQ(outcomeOf(m_lastChannel), "channel created");
}

TEST_F(Tracing, TellsOfAPushThatIsDeliveredToNobody) {
    log({"PPS_DELETE: removed client id [@ipc.1] return code [1]",
         "Empty message received from [@ipc.1]."});
    receive("a", "1");
    deliver("m1");
    m_tracer.finish();
    EXPECT_TRUE(m_last.hasNoReader);
    EXPECT_STREQ(noteOfDelivery(m_last), " to nobody: the application was not connected");
}

// An object service that was started again gives its connections the names of before.
TEST_F(Tracing, TakesAConnectionOfTheSameNameForANewOne) {
    log({"PPS_DELETE: removed client id [@ipc.1] return code [1]",
         "Empty message received from [@ipc.1].", "clientIf_getMsg - Reading incoming IPC request.",
         "----------------- PPS_CREATED------------------------------",
         "Empty message received from [@ipc.1]."});
    receive("a", "1");
    deliver("m1");
    m_tracer.finish();
    EXPECT_FALSE(m_last.hasNoReader);
}

TEST_F(Tracing, TellsOfAChannelWithoutAPort) {
    createChannel({"processServerRegister: appid [a] port [-1]\n",
                   "getReturnCode: Response Code [0]",
                   "addCreateChannelCompletedMessage: provider app id [a]",
                   " Provider app id [a] current state[Create] next state[Register]"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel created, but nobody listens: the push server gave no port (its code was 0)");
    EXPECT_FALSE(m_lastChannel.isGood());
    createChannel({"processServerRegister: appid [a] port [-1]\n",
                   "getReturnCode: Response Code [200]",
                   "processServerRegister: app id [a] port [-1]",
                   "processServerRegister: Opening port 4400\n",
                   "addCreateChannelCompletedMessage: provider app id [a]",
                   " Provider app id [a] current state[Create] next state[Register]"});
    EXPECT_EQ(outcomeOf(m_lastChannel), "channel created");
}

// Without -v the list that the main thread watches next tells it.
TEST_F(Tracing, TellsOfAChannelWithoutAPortWhereTheAgentWatchesNone) {
    createChannel({"processServerRegister: appid [a] port [-1]\n",
                   " Provider app id [a] current state[Create] next state[Register]",
                   "quilAgentLoop: All the valid ports are\n",
                   "quilAgentLoop: Waiting (select)..."});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel created, but nobody listens: the push server gave no port");
    createChannel({"processServerRegister: appid [a] port [-1]\n",
                   " Provider app id [a] current state[Create] next state[Register]",
                   "quilAgentLoop: All the valid ports are\n", "quilAgentLoop 2: port[4400] fd[9]",
                   "quilAgentLoop: Waiting (select)..."});
    EXPECT_EQ(outcomeOf(m_lastChannel), "channel created");
    m_shown.clear();
    createChannel({"processServerRegister: appid [a] port [-1]\n",
                   "quilAgentLoop: All the valid ports are\n",
                   " Provider app id [a] current state[Create] next state[Register]",
                   "quilAgentLoop: Waiting (select)..."});
    EXPECT_EQ(m_shown, "");  // that list may be one of before
    log({"quilAgentLoop: All the valid ports are\n", "quilAgentLoop: Waiting (select)..."});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel created, but nobody listens: the push server gave no port");
}

TEST_F(Tracing, TellsOfAChannelThatKeepsThePortOfBefore) {
    createChannel({"processServerRegister: appid [a] port [4400]\n",
                   "getReturnCode: Response Code [0]",
                   "addCreateChannelCompletedMessage: provider app id [a]",
                   " Provider app id [a] current state[Create] next state[Register]"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel created, but the push server gave no port (its code was 0): port 4400 of "
              "before is kept");
}

TEST_F(Tracing, TellsTheCodeOfARefusalInTheFirstAnswer) {
    createChannel({"processServerRegister: appid [a] port [-1]\n",
                   "getReturnCode: Response Code [10005]",
                   "addCreateChannelCompletedMessage: provider app id [a]"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel not created: 10005, the push server refused; this is its own return code");
    createChannel({"processServerRegister: appid [a] port [-1]\n"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel not created: the push server's first answer ended it; a log with -v tells "
              "its code");
}

TEST_F(Tracing, TellsOfAChannelAtTheEndOfTheLogThoughNoPortsAreListed) {
    createChannel({"processServerRegister: appid [a] port [-1]\n",
                   " Provider app id [a] current state[Create] next state[Register]"});
    EXPECT_EQ(m_shown, "");
    m_tracer.finish();
    EXPECT_EQ(m_shown, "a create good\n");
}

// Two exchanges at once: of which the line is, nothing says.
TEST_F(Tracing, BlamesNoChannelForATroubleWithoutAName) {
    log({"addMessage: msg type[7] provider id[a] errorCode[0]",
         "addMessage: msg type[7] provider id[b] errorCode[0]", "7 received",
         "app id[a] clientId[@ipc.1]", "7 received", "app id[b] clientId[@ipc.2]",
         "processServerRegister: appid [a] port [-1]\n",
         "processServerRegister: appid [b] port [-1]\n", "getReturnCode: Response Code [200]",
         "getReturnCode: Response Code [10005]", "OVRA registration failed. Invalid port received",
         "addMessage: msg type[2] provider id[a] errorCode[0]",
         "addMessage: msg type[2] provider id[b] errorCode[0]"});
    EXPECT_EQ(m_shown, "a create bad \nb create bad \n");
}

TEST_F(Tracing, TellsWhetherThePortHeaderIsMissing) {
    createChannel({"processServerRegister: appid [a] port [-1]\n",
                   "getReturnCode: Response Code [200]",
                   "OVRA registration failed. Invalid port received"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel not created: OVRA registration failed. Invalid port received: the header "
              "vex-device-ovra-port is missing");
    createChannel({"processServerRegister: appid [a] port [-1]\n", "Port response -3\n",
                   "getReturnCode: Response Code [200]",
                   "OVRA registration failed. Invalid port received"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel not created: OVRA registration failed. Invalid port received: the header "
              "vex-device-ovra-port is '-3'");
    createChannel({"OVRA registration failed. Invalid port received"});
    EXPECT_EQ(outcomeOf(m_lastChannel),
              "channel not created: OVRA registration failed. Invalid port received");
}

TEST_F(Tracing, BeginsAnewWithTheAgent) {
    receive("a", "1");
    log({"Initialize Configuration Manager - done."});
    EXPECT_EQ(m_shown, "a '' 1 \n");
    m_shown.clear();
    receive("b", "2");
    deliver("m1", "b");
    answer("acceptPush", "m1");
    EXPECT_EQ(m_shown, "b 'm1' 2 delivered accepted\n");
}

TEST_F(Tracing, TellsOfThePushAsItComesAndGoes) {
    m_tracer.pushes.onArrival = [this](const PushTrace& push) {
        m_shown +=
            "arrived " + push.appId + " '" + push.id + "' " + std::to_string(push.bytes) + "\n";
    };
    m_tracer.pushes.onDelivery = [this](const PushTrace& push) {
        m_shown += "delivered " + push.appId + " '" + push.id + "'\n";
    };
    receive("a", "68");
    deliver("m1");
    EXPECT_EQ(m_shown, "arrived a '' 68\ndelivered a 'm1'\n");
    m_shown.clear();
    // Handled by the thread that read it, with -v.
    log({"quilAgentLoop: Port 1 receiving data for App id [a]",
         "serverIfProcessData 1: recved [69] bytes of data",
         "found [Push-Message-ID] and value [ m2]"});
    deliver(" m2");
    log({"quilAgentLoop: serverIfProcessData port [1] fd[9]"});
    EXPECT_EQ(m_shown, "arrived a ' m2' 69\ndelivered a ' m2'\n");
}
