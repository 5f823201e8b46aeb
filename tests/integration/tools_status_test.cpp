// quilctl status and trace as people run them: broken set-ups that each name their cause, and the
// whole way of a push with the real agent.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/integration/tool_process.hpp"
#include "tests/integration/watched_system.hpp"
#include "tests/support/child_process.hpp"
#include "tests/support/client_connection.hpp"
#include "tests/support/ppsd_mount.hpp"
#include "tests/support/push_sender.hpp"
#include "tests/support/wait_until.hpp"

namespace {

// Takes all descriptors below `end`, also from the programs that are started meanwhile.
class InheritedDescriptors {
  public:
    explicit InheritedDescriptors(int end) {
        for (;;) {
            const int descriptor = open("/dev/null", O_RDONLY);
            if (descriptor < 0 || descriptor >= end) {
                close(descriptor);
                return;
            }
            m_taken.push_back(descriptor);
        }
    }
    ~InheritedDescriptors() {
        for (const int descriptor : m_taken) {
            close(descriptor);
        }
    }
    InheritedDescriptors(const InheritedDescriptors&) = delete;
    InheritedDescriptors& operator=(const InheritedDescriptors&) = delete;

  private:
    std::vector<int> m_taken;
};

}  // namespace

TEST_F(Status, SoundSystemHasNoFindings) {
    startAgent();
    EXPECT_EQ(check(), "0");
    const ToolRun result = runTool(m_root.path(), "quilctl", {"status", "--check"});
    EXPECT_EQ(result.output, "nothing is wrong that can be seen from here\n");
}

TEST_F(Status, ShowsWhatThereIs) {
    const Listening other;
    saveSession("1");
    startAgent();
    const ToolRun result = runTool(m_root.path(), "quilctl", {"status"});
    EXPECT_EQ(result.status, 0) << result.error;
    for (const char* part :
         {"object service   mounted on /pps\n", ", serves /pps/services/push/ipc",
          "PIN              0x2a3b\n", "IMSI             302720\n",
          "proxy-port          0 (line 1)\n", "push-timeout        30 (default)\n",
          "of the 15359 bytes", "com.app, port 1, "}) {
        EXPECT_TRUE(contains(result.output, part)) << part << "\n" << result.output;
    }
    const auto object =
        nlohmann::json::parse(runTool(m_root.path(), "quilctl", {"status", "--json"}).output);
    EXPECT_EQ(object["served"], true);
    EXPECT_EQ(object["agents"][0]["user"], getuid());
    EXPECT_EQ(object["configuration"]["http-timeout"]["source"], "line 2");
    EXPECT_EQ(object["sessions"][0]["app"], "com.app");
}

TEST_F(Status, ShowsWhichApplicationsAreConnected) {
    startAgent();
    EXPECT_TRUE(contains(runTool(m_root.path(), "quilctl", {"status"}).output,
                         "applications     0 connected\n"));
    const ClientConnection application(m_ppsd.path("/services/push/ipc"));
    ASSERT_TRUE(application.isOpen());
    const ToolRun result = runTool(m_root.path(), "quilctl", {"status"});
    const std::string own =
        "process " + std::to_string(getpid()) + ", user " + std::to_string(getuid()) + " (";
    EXPECT_TRUE(contains(result.output, "applications     1 connected\n")) << result.output;
    EXPECT_TRUE(contains(result.output, own)) << result.output;
    const auto object =
        nlohmann::json::parse(runTool(m_root.path(), "quilctl", {"status", "--json"}).output);
    ASSERT_EQ(object["clients"].size(), 1U);
    EXPECT_EQ(object["clients"][0]["pid"], getpid());
}

TEST_F(Status, OfNothingIsStatus3) {
    EXPECT_EQ(runTool(m_root.path(), "quilctl", {"status"}).status, 3);
    m_ppsd.stop();
    const ToolRun result = runTool(m_root.path(), "quilctl", {"status"});
    EXPECT_EQ(result.status, 3);
    EXPECT_TRUE(contains(result.output, "no object service is mounted"));
}

TEST_F(Status, NamesAMissingAgent) {
    EXPECT_EQ(check(), "no-agent 1");
}

TEST_F(Status, NamesAMissingMount) {
    m_ppsd.stop();
    EXPECT_EQ(check(), "no-mount no-agent 1");
}

TEST_F(Status, NamesADeadMount) {
    m_ppsd.kill();
    EXPECT_EQ(check(), "mount-dead no-agent 1");
    ASSERT_TRUE(m_ppsd.start());
}

TEST_F(Status, NamesAnObjectInTheWay) {
    write("services/push/ipc", {"a=1"});
    EXPECT_EQ(check(), "no-agent object-in-the-way 1");
}

TEST_F(Status, NamesAnObjectThatAShellMadeInTheAgentsPlace) {
    close(open(m_ppsd.path("/services/push/ipc").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    EXPECT_EQ(check(), "no-agent object-in-the-way 1");
    EXPECT_EQ(runTool(m_root.path(), "ppsctl", {"rm", "services/push/ipc"}).status, 0);
    EXPECT_EQ(check(), "no-agent 1");
}

// An agent runs, but applications write to an object that nobody serves.
TEST_F(Status, NamesAnObjectInTheWayOfARunningAgent) {
    const std::string program = m_root.path("/quilagent");  // runs, and serves nothing
    std::filesystem::copy_file("/bin/sleep", program);
    ChildProcess agent(m_root.path("/agent.log"));
    write("services/push/ipc", {"msg=createSession"});
    ASSERT_TRUE(agent.start({program, "60"}));
    ASSERT_TRUE(waitUntil([this] { return check() == "object-in-the-way 1"; })) << check();
    const ToolRun result = runTool(m_root.path(), "quilctl", {"status"});
    EXPECT_TRUE(contains(result.output, "does not serve")) << result.output;
}

TEST_F(Status, NamesAPortThatTwoSessionsHave) {
    std::string port;
    {
        const Listening free;
        port = free.port;
    }
    const std::string session =
        "\",\"ppgUrl\":\"http://x\",\"launchString\":\"\",\"token\":\"2a\","
        "\"port\":" +
        port + "}";
    write("services/push/quilagent",
          {"version=5.0.0", "imsi=302720",
           "dat:json:{\"sessions\":[{\"providerApplicationId\":\"com.a" + session +
               ",{\"providerApplicationId\":\"com.b" + session + "]}"});
    startAgent();
    EXPECT_EQ(check(), "port-shared 1");
}

TEST_F(Status, NamesAMissingPin) {
    startAgent();
    unlink(m_ppsd.path("/system/nvram/deviceinfo").c_str());
    write("system/nvram/deviceinfo", {"HardwareID=0x05"});
    EXPECT_EQ(check(), "no-pin 1");
    const ToolRun result = runTool(m_root.path(), "quilctl", {"status", "--check"});
    EXPECT_TRUE(contains(result.output, "problem: the device's PIN is unknown"))
        << result.status << "\n"
        << result.output << result.error;
    EXPECT_TRUE(contains(result.output, "next: without it every channel has an empty token"));
}

TEST_F(Status, NamesAMissingIdentityObject) {
    startAgent();
    unlink(m_ppsd.path("/services/deviceproperties").c_str());
    EXPECT_EQ(check(), "no-identity 1");
}

TEST_F(Status, WarnsOfAMissingSim) {
    startAgent();
    unlink(m_ppsd.path("/services/cellular/uicc/card0/status_private").c_str());
    EXPECT_EQ(check(), "no-imsi 0");
}

TEST_F(Status, WarnsOfAnotherSim) {
    startAgent();
    write("services/push/quilagent", {"imsi=999"});
    EXPECT_EQ(check(), "sim-changed 0");
}

TEST_F(Status, NamesAProxyInTheWay) {
    std::string port;
    {
        const Listening proxy;
        port = proxy.port;
        configure("proxy-port " + port + "\nhttp-timeout 20\n");
        startAgent();
        EXPECT_EQ(check(), "0");
    }
    EXPECT_EQ(check(), "proxy 1");
}

TEST_F(Status, WarnsOfTimeoutsThatAreOff) {
    configure("proxy-port 0\npush-timeout 0\n");
    startAgent();
    EXPECT_EQ(check(), "http-timeout push-timeout 0");
}

TEST_F(Status, NamesOddLinesOfTheConfiguration) {
    configure("proxy-port 0\r\nhttp-timeout 20\nhttp-timeuot 30\nlonely\n#comment here\n" +
              std::string(300, 'x') + "\nuser 0\n");
    startAgent();
    EXPECT_EQ(check(), "configuration configuration configuration configuration configuration 1");
}

TEST_F(Status, WarnsOfFilesThatChangedSinceTheAgentReadThem) {
    configure("proxy-port 0\nhttp-timeout 20\nrules /etc/rules\n");
    std::ofstream(m_root.path("/etc/rules")) << "allow user * *\n";
    startAgent();
    EXPECT_FALSE(contains(check(), "not-loaded"));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::ofstream(m_root.path("/etc/rules")) << "allow user * %u.*\n";
    const std::string found = check();
    EXPECT_TRUE(contains(found, "not-loaded")) << found;
}

TEST_F(Status, NamesRulesThatLeaveRootAlone) {
    configure("proxy-port 0\nhttp-timeout 20\nrules /etc/quilagent.rules\n");
    startAgent();
    EXPECT_EQ(check(), "rules 1");
    // Only what is later than the agent's start by more than that takes is sure not to be loaded.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::ofstream(m_root.path("/etc/quilagent.rules")) << "allow\nallow user * %u.*\ndeny\n";
    EXPECT_EQ(check(), "rules rules not-loaded 1");
    std::ofstream(m_root.path("/etc/quilagent.rules")) << "allow user * %u.*\n";
    EXPECT_EQ(check(), "not-loaded 0");
}

TEST_F(Status, NamesAllowedSendersThatAreNone) {
    configure("proxy-port 0\nhttp-timeout 20\nallowed-senders 127.0.0.2, 10.0.0.0/8 foo\n");
    startAgent();
    EXPECT_EQ(check(), "allowed-senders 0");
    const std::string shown = runTool(m_root.path(), "quilctl", {"status"}).output;
    EXPECT_TRUE(
        contains(shown, "127.0.0.2, 10.0.0.0/8 foo (line 3; what counts: 127.0.0.2, 10.0.0.0/8)"))
        << shown;
    m_agent.reset();
    configure("proxy-port 0\nhttp-timeout 20\nallowed-senders foo\n");
    startAgent();
    EXPECT_EQ(check(), "allowed-senders allowed-senders 1");
    const ToolRun none = runTool(m_root.path(), "quilctl", {"status"});
    EXPECT_TRUE(contains(none.output, "foo (line 3; what counts: nothing)")) << none.output;
    const auto object =
        nlohmann::json::parse(runTool(m_root.path(), "quilctl", {"status", "--json"}).output);
    EXPECT_TRUE(object["configuration"]["allowed-senders"]["counts"].empty()) << object;
}

TEST_F(Status, LaterEmptyValueIsTheDefaultAgain) {
    configure("proxy-port 0\nhttp-timeout 20\nrules /etc/none\nrules \n");
    startAgent();
    EXPECT_EQ(check(), "0");
}

TEST_F(Status, WarnsOfAMissingConfiguration) {
    startAgent();
    std::filesystem::remove(m_root.path("/etc/quilagent.conf"));
    EXPECT_TRUE(contains(check(), "no-configuration"));
}

TEST_F(Status, NamesAListenAddressOfAnotherMachine) {
    configure("proxy-port 0\nhttp-timeout 20\nlisten-address 192.0.2.1\n");
    startAgent();
    EXPECT_EQ(check(), "listen-address 1");
}

// A push server that ends the registration with code 0 gives a token, but no port. Such a channel
// is not saved.
TEST_F(Status, QueryChannelTellsThatThePushServerGaveNoPort) {
    startAgent();
    createChannelAt({"--rc", "0"});
    const ToolRun query = runTool(m_root.path(), "quilctl", {"query-channel", "com.app"});
    EXPECT_TRUE(contains(query.output, "channel without a port")) << query.output << query.error;
}

TEST_F(Status, NamesANumberThatIsNotAPort) {
    startAgent();
    createChannelAt({"--port-header", "70000"});
    ASSERT_TRUE(waitUntil([this] {  // it is saved behind the answer
        return contains(runTool(m_root.path(), "quilctl", {"status"}).output, "port 70000");
    }));
    EXPECT_EQ(check(), "port-invalid 1");
    const std::string words = runTool(m_root.path(), "quilctl", {"status", "--check"}).output;
    EXPECT_TRUE(
        contains(words, "port 70000 of com.app is not a port: the push server has to correct it"))
        << words;
}

TEST_F(Status, NamesAPortThatNobodyListensOn) {
    std::string port;
    {
        const Listening other;
        port = other.port;
    }
    startAgent();
    saveSession(port);
    EXPECT_EQ(check(), "port-silent 1");
}

// With its low descriptors taken, the agent's later ports come to lie beyond 255.
TEST_F(Status, NamesPortsThatTheAgentCannotWatch) {
    constexpr int kFirstUnwatched = 256;
    constexpr int kLeftToTheAgent = 32;
    constexpr int kChannels = 40;
    {
        const InheritedDescriptors taken(kFirstUnwatched - kLeftToTheAgent);
        startAgent();
    }
    m_agent->closeOutput();  // nobody reads on
    const std::string portFile = m_root.path("/port");
    ToolProcess server(m_root.path(), "pushsim",
                       {"serve", "--port-file", portFile, "--ports", "21000-29000"});
    ASSERT_TRUE(server.waitFor("listening on"));
    std::string port;
    std::ifstream(portFile) >> port;
    ClientConnection client(m_ppsd.path("/services/push/ipc"));
    for (int i = 0; i < kChannels; ++i) {
        const std::string app = "com.app" + std::to_string(i);
        client.request("createSession", "s", app);
        EXPECT_EQ(client.next().msg, "onCreateSessionComplete");
        client.request("createChannel", "c", app, "\"ppgUrl\":\"http://127.0.0.1:" + port + "\"");
        EXPECT_EQ(client.next().token, "2a3b");
        if (i == 0) {
            EXPECT_EQ(check(), "0");
        }
    }
    ASSERT_TRUE(waitUntil([this] {
        return contains(runTool(m_root.path(), "quilctl", {"status"}).output,
                        "com.app" + std::to_string(kChannels - 1));
    }));
    const ToolRun checked = runTool(m_root.path(), "quilctl", {"status", "--check"});
    const std::string last = "com.app" + std::to_string(kChannels - 1);
    EXPECT_TRUE(contains(checked.output, " of " + last + " is on descriptor ")) << checked.output;
    EXPECT_FALSE(contains(checked.output, " of com.app0 ")) << checked.output;
    const ToolRun shown = runTool(m_root.path(), "quilctl", {"status"});
    EXPECT_TRUE(contains(shown.output, ", listening, NOT watched")) << shown.output;

    const auto status =
        nlohmann::json::parse(runTool(m_root.path(), "quilctl", {"status", "--json"}).output);
    std::string expected;
    for (const auto& session : status["sessions"]) {
        expected += session["watched"] ? "" : "port-unwatched ";
    }
    EXPECT_EQ(check(), expected + "1");

    // What it says is so: the one waits, the other is served.
    for (const auto& session : status["sessions"]) {
        if (session["app"] != "com.app0" && session["app"] != last) {
            continue;
        }
        const bool isWatched = session["app"] == "com.app0";
        EXPECT_EQ(session["watched"], isWatched);
        const PushSender sender(session["port"].get<int>());
        ASSERT_TRUE(sender.send(makePush("m", "x")));
        EXPECT_EQ(client.next(isWatched ? 20 : 0.5).id, isWatched ? "m" : "") << session;
    }
}

TEST_F(Status, NamesDamagedAndOverlongSavedSessions) {
    startAgent();
    write("services/push/quilagent", {"dat:json:{broken"});
    EXPECT_EQ(check(), "saved-damaged 1");
    write("services/push/quilagent", {"dat=" + std::string(16000, 'x')});
    EXPECT_EQ(check(), "saved-too-long 1");
}

TEST_F(Status, NamesObjectsThatTheAgentsUserMayNotUse) {
    if (getuid() != 0) {
        GTEST_SKIP() << "NOT TESTED, only root can give the agent another user";
    }
    saveSession("-1");
    chmod(m_ppsd.path("/services/push/quilagent").c_str(), 0600);
    chmod(m_ppsd.path("/system/nvram/deviceinfo").c_str(), 0600);
    chmod(m_ppsd.path("/services/push").c_str(), 0777);
    m_agent.emplace(m_root.path(), "quilagent", Words{"-U", "12345:12345"});
    ASSERT_TRUE(m_agent->waitFor("Start Push Agent")) << m_agent->output;
    const std::string found = check();
    EXPECT_TRUE(contains(found, "identity-forbidden identity-forbidden saved-forbidden")) << found;
}

// --- trace ---------------------------------------------------------------------------------------

TEST_F(Status, TraceFollowsAPushThroughTheRealAgent) {
    startAgent();
    const std::string portFile = m_root.path("/port");
    ToolProcess server(m_root.path(), "pushsim",
                       {"serve", "--port-file", portFile, "--ports", "21000-29000"});
    ASSERT_TRUE(server.waitFor("listening on"));
    std::string url;
    std::ifstream(portFile) >> url;
    ToolProcess listener(m_root.path(), "quilctl",
                         {"listen", "com.app", "--ppg", "http://127.0.0.1:" + url, "--count", "1"});
    ASSERT_TRUE(listener.waitFor("channel open")) << listener.error;
    const auto status =
        nlohmann::json::parse(runTool(m_root.path(), "quilctl", {"status", "--json"}).output);
    ASSERT_EQ(status["sessions"].size(), 1U) << status;
    EXPECT_EQ(status["sessions"][0]["listening"], true);
    std::ofstream(m_root.path("/data")) << "hello";
    const ToolRun sent = runTool(m_root.path(), "pushsim",
                                 {"send", std::to_string(status["sessions"][0]["port"].get<int>()),
                                  m_root.path("/data"), "--id", "m1", "--wait"});
    EXPECT_EQ(sent.status, 0) << sent.output << sent.error;
    EXPECT_EQ(listener.wait(), 0);
    EXPECT_TRUE(contains(listener.output, "push ' m1', 5 bytes, sender waits")) << listener.output;
    ASSERT_TRUE(m_agent->waitFor("acceptPush called"));
    ASSERT_TRUE(m_agent->waitFor("PPS_DELETE"));  // listen is gone, so the answer was handled
    std::ofstream(m_root.path("/log")) << m_agent->output;
    const ToolRun trace = runTool(m_root.path(), "quilctl", {"trace", m_root.path("/log")});
    EXPECT_EQ(trace.status, 0) << trace.error;
    EXPECT_EQ(trace.output,
              "--:--:--.---  com.app: channel created\n"
              "--:--:--.---  com.app push ' m1', 68 bytes: accepted\n");
}

namespace {

constexpr const char* kLog =
    "2026-11-21T10:00:00.000 QUIL:event_loop.cpp(1): quilAgentLoop: Port 1 receiving data for App "
    "id [a]\n"
    "2026-11-21T10:00:02.500 QUIL:push_intake.cpp(1): serverIfProcessData 1: recved [9] bytes of "
    "data\n"
    "2026-11-21T10:00:02.500 QUIL:event_loop.cpp(1): quilAgentLoop: serverIfProcessData port [1] "
    "fd[9]\n";

class Trace : public ::testing::Test {
  protected:
    ToolRun trace(const Words& more) {
        std::ofstream(m_root.path("/log")) << kLog;
        Words words = {"trace", m_root.path("/log")};
        words.insert(words.end(), more.begin(), more.end());
        return runTool(m_root.path(), "quilctl", words);
    }

    ScratchRoot m_root;
};

}  // namespace

TEST_F(Trace, MarksWhatWasSlow) {
    EXPECT_EQ(trace({}).output,
              "10:00:00.000  a push, 9 bytes: still queued; read 2500 ms  SLOW: read\n");
    EXPECT_EQ(trace({"--slow", "3"}).output,
              "10:00:00.000  a push, 9 bytes: still queued; read 2500 ms\n");
}

TEST_F(Trace, AsJsonIsOneObjectPerLine) {
    const auto object = nlohmann::json::parse(trace({"--json"}).output);
    EXPECT_EQ(object["kind"], "push");
    EXPECT_EQ(object["seconds"]["read"], 2.5);
    EXPECT_EQ(object["slow"][0], "read");
}

TEST_F(Trace, ReadsStandardInput) {
    ToolProcess trace(m_root.path(), "quilctl", {"trace", "-"});
    trace.type(kLog);
    EXPECT_EQ(trace.wait(), 0);
    EXPECT_TRUE(contains(trace.output, "still queued")) << trace.output;
}

TEST_F(Trace, OfAMissingFileIsStatus3AndOfAnotherFileIsStatus1) {
    EXPECT_EQ(runTool(m_root.path(), "quilctl", {"trace", m_root.path("/none")}).status, 3);
    std::ofstream(m_root.path("/other")) << "nothing of the agent's\n";
    const ToolRun other = runTool(m_root.path(), "quilctl", {"trace", m_root.path("/other")});
    EXPECT_EQ(other.status, 1);
    EXPECT_TRUE(contains(other.error, "no line of the agent's log")) << other.error;
}
