// Pushes and channels followed through the agent's log.

#include <gtest/gtest.h>

#include "tools/quilctl/log_line.hpp"
#include "tools/quilctl/log_tracer.hpp"

namespace {

// A traced log, rendered: one line per push and channel. Each line of the log is a second later.
class Tracing : public ::testing::Test {
  protected:
    Tracing() {
        m_tracer.onPush = [this](const PushTrace& push) {
            m_shown += push.appId + " '" + push.id + "' " + std::to_string(push.bytes) + " " +
                       (push.wasDelivered ? "delivered " : "") + push.answer + push.trouble + "\n";
            m_last = push;
        };
        m_tracer.onChannel = [this](const ChannelTrace& channel) {
            m_shown += channel.appId + (channel.isDestroying ? " destroy" : " create") +
                       (channel.isGood ? " good" : " bad ") + channel.trouble + "\n";
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
    EXPECT_EQ(line->dayTime, 10 * 3600 + 20 * 60 + 30);
    EXPECT_NEAR(*parseLogLine("2026-11-21T00:00:01.25+0000 QUIL:a.cpp(5): x")->dayTime, 1.25, 1e-9);
    EXPECT_FALSE(parseLogLine("QUIL:a.cpp(5): at 10:20:30")->dayTime.has_value());
    EXPECT_FALSE(parseLogLine("something else").has_value());
    EXPECT_FALSE(parseLogLine("QUIL:a.cpp(5)").has_value());
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
    log(
        {"serverIfProcessData: push for app id [c] given up: of 64 that wait it has been silent "
         "longest"});
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
              "c create bad HTTP Transport failure: rc [7] HTTP Status[0] "
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
              "a 'm2' 2 refused with code 10109\n"
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
         "HTTP Transport failure: rc [7] HTTP Status[0] url[http://x]",
         "addMessage: msg type[2] provider id[a] errorCode[0]"});
    log({"addMessage: msg type[8] provider id[a] errorCode[0]", "8 received",
         "app id[a] clientId[@ipc.1]", "addMessage: msg type[3] provider id[a] errorCode[10103]"});
    EXPECT_EQ(m_shown,
              "a create bad HTTP Transport failure: rc [7] HTTP Status[0] url[http://x]\n"
              "a destroy bad \n");
}
