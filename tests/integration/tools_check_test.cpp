// quilctl status --check as a monitor runs it, on systems of which a part hangs, is in another's
// hands or cannot be seen; and quilctl clients.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "tests/integration/other_user.hpp"
#include "tests/integration/watched_system.hpp"
#include "tests/support/child_process.hpp"
#include "tests/support/client_connection.hpp"
#include "tests/support/private_mount.hpp"
#include "tests/support/push_sender.hpp"
#include "tests/support/wait_until.hpp"

namespace {

constexpr const char* kApp = "com.app";

// A process that gets no processor for a while.
class Stopped {
  public:
    explicit Stopped(pid_t process) : m_process(process) { kill(process, SIGSTOP); }
    ~Stopped() { kill(m_process, SIGCONT); }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

  private:
    pid_t m_process;
};

class StatusCheck : public Status {
  protected:
    pid_t agentProcess() {
        const ToolRun run = runTool(m_root.path(), "quilctl", {"status", "--json"});
        return nlohmann::json::parse(run.output)["agents"][0]["pid"];
    }

    // A program named quilagent that does nothing.
    void startIdleAgent() {
        const std::string program = m_root.path("/quilagent");
        std::filesystem::copy_file("/bin/sleep", program);
        ASSERT_TRUE(m_idle.start({program, "60"}));
        // Until it has become that program, it has another name.
        ASSERT_TRUE(waitUntil([this] { return !contains(check(), "no-agent"); }));
    }

    // What the findings say, and what to do about them.
    std::string words() {
        const std::string found =
            runTool(m_root.path(), "quilctl", {"status", "--check", "--json", "--timeout", "0.5"})
                .output;
        return namesIn(found, "words") + namesIn(found, "next");
    }

    // What quilctl prints as that user, its errors too; the exit status follows.
    std::string runAs(uid_t user, const std::string& words) {
        const std::string log = m_root.path("/as_other.log");
        close(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        chmod(log.c_str(), 0666);
        const int status = asOther(
            [&] {
                const std::string line =
                    builtProgram("quilctl") + " " + words + " > " + log + " 2>&1";
                return WEXITSTATUS(std::system(line.c_str()));
            },
            user);
        std::ostringstream text;
        text << std::ifstream(log).rdbuf();
        return text.str() + std::to_string(status);
    }

    // A channel of the agent's with its application; its port.
    int createChannel(ClientConnection& client) {
        m_server.emplace(
            m_root.path(), "pushsim",
            Words{"serve", "--port-file", m_root.path("/server"), "--ports", "21000-29000"});
        EXPECT_TRUE(m_server->waitFor("listening on"));
        std::string port;
        std::ifstream(m_root.path("/server")) >> port;
        client.request("createSession", "s", kApp);
        EXPECT_EQ(client.next().msg, "onCreateSessionComplete");
        client.request("createChannel", "c", kApp, "\"ppgUrl\":\"http://127.0.0.1:" + port + "\"");
        EXPECT_EQ(client.next().token, "2a3b");
        const auto status =
            nlohmann::json::parse(runTool(m_root.path(), "quilctl", {"status", "--json"}).output);
        EXPECT_EQ(status["sessions"].size(), 1U) << status;
        return status["sessions"][0]["port"];
    }

    std::string object(const std::string& name) { return m_ppsd.path("/services/push/" + name); }

    ChildProcess m_idle{m_root.path("/idle.log")};
    std::optional<ToolProcess> m_server;
};

}  // namespace

// --- what hangs ----------------------------------------------------------------------------------

TEST_F(StatusCheck, ObjectServiceThatHangsIsNamedInTime) {
    startAgent();
    const Stopped service(m_ppsd.pid());
    EXPECT_EQ(check({"--timeout", "0.5"}), "service-hangs 1");
    const std::string found = words();
    const std::string process = std::to_string(m_ppsd.pid());
    EXPECT_TRUE(contains(found, "process " + process + ", was stopped by a signal")) << found;
    EXPECT_TRUE(contains(found, "kill -CONT " + process)) << found;
    EXPECT_TRUE(contains(found, "identity, saved sessions and everything else")) << found;
}

TEST_F(StatusCheck, ObjectServiceThatHangsIsATimeOutOfTheOtherVerbs) {
    startAgent();
    const Stopped service(m_ppsd.pid());
    const ToolRun status = runTool(m_root.path(), "quilctl", {"status", "--timeout", "0.5"});
    EXPECT_EQ(status.status, 4);
    EXPECT_TRUE(contains(status.output, "mounted on /pps, but does not answer")) << status.output;
    EXPECT_FALSE(contains(status.output, "does not serve")) << status.output;
    const ToolRun clients = runTool(m_root.path(), "quilctl", {"clients", "--timeout", "0.5"});
    EXPECT_EQ(clients.status, 4);
    EXPECT_TRUE(contains(clients.error, "does not answer")) << clients.error;
}

TEST_F(StatusCheck, AgentThatWasStoppedIsNamed) {
    startAgent();
    {
        const Stopped agent(agentProcess());
        EXPECT_EQ(check(), "agent-stopped 1");
        const ToolRun run = runTool(m_root.path(), "quilctl", {"status"});
        EXPECT_TRUE(contains(run.output, "STOPPED by a signal")) << run.output;
    }
    EXPECT_EQ(check(), "0");
}

// It serves the object, and takes nothing from it.
TEST_F(StatusCheck, AgentThatHangsIsNamed) {
    startIdleAgent();
    const int served = open(object("ipc?server").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_GE(served, 0);
    chmod(object("ipc").c_str(), 0666);
    EXPECT_EQ(check({"--timeout", "0.5"}), "agent-hangs 1");
    close(served);
}

TEST_F(StatusCheck, CheckChangesNothing) {
    startAgent({"-v", "-v"});
    ClientConnection client(object("ipc"));
    createChannel(client);
    std::ostringstream before;
    before << std::ifstream(object("quilagent")).rdbuf();
    EXPECT_EQ(check(), "0");
    std::ostringstream after;
    after << std::ifstream(object("quilagent")).rdbuf();
    EXPECT_EQ(after.str(), before.str());
    EXPECT_NE(before.str(), "");
    EXPECT_TRUE(client.isSilent());
    ASSERT_TRUE(m_agent->waitFor("[quilctl-status-check-")) << m_agent->output;
    EXPECT_FALSE(contains(m_agent->output, "added key [quilctl-status-check-"));
    EXPECT_FALSE(std::filesystem::exists(m_ppsd.path("/.quilctl-check")));
}

// An ordinary object keeps what is written to it, so it must not be asked.
TEST_F(StatusCheck, ObjectThatNobodyServesIsNotAsked) {
    startIdleAgent();
    close(open(object("ipc").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    EXPECT_EQ(check(), "object-in-the-way 1");
    EXPECT_EQ(std::filesystem::file_size(object("ipc")), 0U);
}

// --- ports and pushes ----------------------------------------------------------------------------

TEST_F(StatusCheck, PortThatAnotherProcessOfTheSameUserHoldsIsNamed) {
    const Listening other;
    startAgent();
    saveSession(other.port);
    EXPECT_EQ(check(), "port-taken 1");
    EXPECT_TRUE(contains(words(), "process " + std::to_string(getpid()) + ") listens on"))
        << words();
}

TEST_F(StatusCheck, PushThatWaitsIsNamedUntilItIsAnswered) {
    startAgent();
    ClientConnection client(object("ipc"));
    const int port = createChannel(client);
    const PushSender sender(port);
    ASSERT_TRUE(sender.send(makePush("m", "x")));
    EXPECT_EQ(client.next().id, "m");
    EXPECT_EQ(check(), "pushes-wait 0");
    client.request("acceptPush", "m", kApp);
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
    EXPECT_EQ(check(), "0");
}

TEST_F(StatusCheck, PushWhoseSenderHungUpWaitsForNoAnswer) {
    startAgent();
    ClientConnection client(object("ipc"));
    const int port = createChannel(client);
    std::optional<PushSender> gone(port);
    ASSERT_TRUE(gone->send(makePush("m1", "x")));
    EXPECT_EQ(client.next().id, "m1");
    gone.reset();
    EXPECT_EQ(check(), "senders-gone 0");
    const PushSender sender(port);
    ASSERT_TRUE(sender.send(makePush("m2", "x")));
    EXPECT_EQ(client.next().id, "m2");
    EXPECT_EQ(check(), "pushes-wait senders-gone 0");
    EXPECT_TRUE(contains(words(), "1 push waits for an answer on port")) << words();
    EXPECT_TRUE(contains(words(), "the sender of 1 push on port")) << words();
}

TEST_F(StatusCheck, PushThatTheAgentDoesNotTakeIsCounted) {
    startAgent();
    ClientConnection client(object("ipc"));
    const int port = createChannel(client);
    const Stopped agent(agentProcess());
    const PushSender sender(port);
    EXPECT_EQ(check(), "agent-stopped pushes-wait 1");
    const std::string found = words();
    EXPECT_TRUE(contains(found, "1 push waits for an answer on port")) << found;
    EXPECT_TRUE(contains(found, "1 of them not")) << found;
}

// --- the object service --------------------------------------------------------------------------

TEST_F(StatusCheck, WrongRightsAreNamedToRootToo) {
    startAgent();
    chmod(object("ipc").c_str(), 0600);
    EXPECT_EQ(check(), "object-mode 1");
    chmod(object("ipc").c_str(), 0666);
    chmod(m_ppsd.path("/services/push").c_str(), 0700);
    EXPECT_EQ(check(), "folder-mode 1");
    chmod(m_ppsd.path("/services/push").c_str(), 0755);
    EXPECT_EQ(check(), "0");
}

TEST_F(StatusCheck, ObjectOfAnotherUserIsNamed) {
    QUIL_SKIP_UNLESS_ROOT();
    startAgent();
    ASSERT_EQ(chown(object("ipc").c_str(), kOther, kOther), 0);
    EXPECT_EQ(check(), "object-owner 0");
}

TEST_F(StatusCheck, FullDiskBelowTheStoreIsNamed) {
    QUIL_SKIP_UNLESS_ROOT();
    constexpr std::size_t kDiskBytes = std::size_t{4} * 1024 * 1024;
    ASSERT_EQ(m_ppsd.stop(), 0);
    PrivateMount disk;
    if (!PrivateMount::disk(m_root.path("/var/lib/ppsd"), kDiskBytes, disk)) {
        GTEST_SKIP() << "NOT TESTED: no disk of its own to be had here";
    }
    SetUp();
    startAgent();
    EXPECT_EQ(check(), "0");
    std::ofstream filling(m_root.path("/var/lib/ppsd/filling"));
    filling << std::string(kDiskBytes - 512 * 1024, 'x') << std::flush;
    EXPECT_EQ(check(), "store-nearly-full 0");
    filling << std::string(kDiskBytes, 'x') << std::flush;
    EXPECT_EQ(check(), "store 1");
    const std::string found = words();
    EXPECT_TRUE(contains(found, "No space left on device")) << found;
    ASSERT_EQ(m_ppsd.stop(), 0);
}

TEST_F(StatusCheck, StoreThatCannotBeWrittenIsNamed) {
    QUIL_SKIP_UNLESS_ROOT();
    ASSERT_EQ(m_ppsd.stop(), 0);
    PrivateMount readOnly;
    if (!PrivateMount::readOnly(m_root.path("/var/lib/ppsd"), readOnly)) {
        GTEST_SKIP() << "NOT TESTED: nothing can be mounted here";
    }
    ASSERT_TRUE(m_ppsd.start());
    startAgent();
    EXPECT_EQ(check(), "store 1");
    ASSERT_EQ(m_ppsd.stop(), 0);
}

TEST_F(StatusCheck, DiskThatTakesTooLongIsNamed) {
    ASSERT_EQ(m_ppsd.stop(), 0);
    setenv("QUIL_SYNC_MILLISECONDS", "3000", 1);
    m_ppsd.preload("slow_sync");
    ASSERT_TRUE(m_ppsd.start());
    startAgent();
    EXPECT_EQ(check({"--timeout", "1"}), "store 1");
}

// It runs on, but whoever owns the folder now does not let it back.
TEST_F(StatusCheck, AgentThatLostItsObjectServiceIsNamed) {
    QUIL_SKIP_UNLESS_ROOT();
    chmod(m_ppsd.path("/services/push").c_str(), 0777);
    m_agent.emplace(m_root.path(), "quilagent", Words{"-U", "12345:12345"});
    ASSERT_TRUE(m_agent->waitFor("Entering quilAgentLoop")) << m_agent->output;
    EXPECT_EQ(check(), "0");
    chmod(m_ppsd.path("/services/push").c_str(), 0755);
    ASSERT_TRUE(m_ppsd.restart());
    EXPECT_EQ(check(), "not-served 1");
}

// --- agents and files ----------------------------------------------------------------------------

TEST_F(StatusCheck, SeveralAgentsAreNamedOneByOne) {
    startAgent();
    startIdleAgent();
    EXPECT_EQ(check(), "many-agents 0");
    const std::string found = words();
    EXPECT_TRUE(contains(found, "process " + std::to_string(m_idle.pid()))) << found;
}

TEST_F(StatusCheck, ConfigurationThatCannotBeReadIsNamed) {
    startAgent();
    std::filesystem::remove(m_root.path("/etc/quilagent.conf"));
    std::filesystem::create_directory(m_root.path("/etc/quilagent.conf"));
    EXPECT_TRUE(contains(check(), "configuration-unreadable ")) << check();
    const std::string found = words();
    EXPECT_TRUE(contains(found, "cannot be read (Is a directory)")) << found;
}

TEST_F(StatusCheck, ConfigurationThatIsAPipeIsNotWaitedFor) {
    startAgent();
    std::filesystem::remove(m_root.path("/etc/quilagent.conf"));
    ASSERT_EQ(mkfifo(m_root.path("/etc/quilagent.conf").c_str(), 0600), 0);
    EXPECT_TRUE(contains(check(), "configuration-unreadable ")) << check();
}

TEST_F(StatusCheck, WhatAnotherUserCannotSeeIsSaid) {
    QUIL_SKIP_UNLESS_ROOT();
    startAgent();
    saveSession("1");
    chmod(object("quilagent").c_str(), 0600);
    chmod(m_root.path("/etc/quilagent.conf").c_str(), 0600);
    chmod(m_ppsd.path("/services/cellular/uicc/card0/status_private").c_str(), 0600);
    const std::string seen = runAs(kOther, "status --check --json");
    EXPECT_EQ(seen.back(), '0') << seen;
    const std::string names = namesIn(seen.substr(0, seen.size() - 1), "unchecked");
    for (const char* name :
         {"configuration ", "descriptors ", "identity ", "sessions ", "store "}) {
        EXPECT_TRUE(contains(names, name)) << name << "\n" << seen;
    }
    const std::string text = runAs(kOther, "status --check");
    EXPECT_TRUE(
        contains(text, "not checked: the configuration, which you may not read; needs root"))
        << text;
}

// --- clients -------------------------------------------------------------------------------------

TEST_F(StatusCheck, ClientsShowsWhoIsConnected) {
    startAgent();
    EXPECT_EQ(runTool(m_root.path(), "quilctl", {"clients"}).output, "nobody is connected\n");
    const ClientConnection application(object("ipc"));
    const ToolRun run = runTool(m_root.path(), "quilctl", {"clients"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_TRUE(contains(run.output, "  process " + std::to_string(getpid()) + " (")) << run.output;
    EXPECT_TRUE(contains(run.output, "), user " + std::to_string(getuid()))) << run.output;
    const auto object =
        nlohmann::json::parse(runTool(m_root.path(), "quilctl", {"clients", "--json"}).output);
    EXPECT_EQ(object["pid"], getpid());
    EXPECT_EQ(object["user"], getuid());
    EXPECT_EQ(object["group"], getgid());
    EXPECT_NE(object["program"], "");
    EXPECT_FALSE(object.contains("apps"));
}

TEST_F(StatusCheck, ClientsSaysForWhichApplicationsOutOfTheLog) {
    startAgent({"-v", "-v"});
    ClientConnection application(object("ipc"));
    application.request("createSession", "s", kApp);
    EXPECT_EQ(application.next().msg, "onCreateSessionComplete");
    const ClientConnection other(object("ipc"));
    ASSERT_TRUE(m_agent->waitFor("Callback [onCreateSessionComplete]"));
    std::ofstream(m_root.path("/log")) << m_agent->output;
    const ToolRun run =
        runTool(m_root.path(), "quilctl", {"clients", "--json", "--log", m_root.path("/log")});
    EXPECT_EQ(run.status, 0) << run.error;
    std::istringstream lines(run.output);
    std::string first;
    std::string second;
    std::getline(lines, first);
    std::getline(lines, second);
    EXPECT_EQ(nlohmann::json::parse(first)["apps"], (Words{kApp})) << run.output;
    EXPECT_EQ(nlohmann::json::parse(second)["apps"], Words()) << run.output;
    const ToolRun text =
        runTool(m_root.path(), "quilctl", {"clients", "--log", m_root.path("/log")});
    EXPECT_TRUE(contains(text.output, std::string(", ") + kApp + "\n")) << text.output;
}

TEST_F(StatusCheck, ClientsSaysWhoMaySeeThem) {
    QUIL_SKIP_UNLESS_ROOT();
    startAgent();
    const std::string seen = runAs(kOther, "clients");
    EXPECT_TRUE(contains(seen, "only root and the agent's user may see who is connected")) << seen;
    EXPECT_EQ(seen.back(), '1');
}

TEST_F(StatusCheck, ClientsOfNothingIsStatus3) {
    const ToolRun noAgent = runTool(m_root.path(), "quilctl", {"clients"});
    EXPECT_EQ(noAgent.status, 3);
    EXPECT_TRUE(contains(noAgent.error, "no agent serves")) << noAgent.error;
    EXPECT_EQ(runTool(m_root.path(), "quilctl", {"clients", "--log", "/none"}).status, 3);
    m_ppsd.stop();
    EXPECT_EQ(runTool(m_root.path(), "quilctl", {"clients"}).status, 3);
}
