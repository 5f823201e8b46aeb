// ppsctl as people run it, on a live mount: every verb, option and exit status.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/integration/served_agent.hpp"
#include "tests/integration/tool_process.hpp"
#include "tests/support/agent/in_child.hpp"
#include "tests/support/ppsd_mount.hpp"

namespace {

using Words = std::vector<std::string>;

class Ppsctl : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
        ASSERT_TRUE(m_ppsd.start());
        ASSERT_EQ(mkdir(m_ppsd.path("/test").c_str(), 0755), 0);
        const ToolRun made = run({"write", "test/object", "--create", "a=1", "n:n:2"});
        ASSERT_EQ(made.status, 0) << made.error;
    }

    ToolRun run(const Words& words) { return runTool(m_root.path(), "ppsctl", words); }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST_F(Ppsctl, LsShowsModeOwnerAndName) {
    chmod(m_ppsd.path("/test/object").c_str(), 0640);
    const ToolRun result = run({"ls", "/pps/test"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.output.substr(0, 10), "-rw-r-----");
    EXPECT_TRUE(contains(result.output, " object\n")) << result.output;
    EXPECT_EQ(result.output, run({"ls", "test/"}).output);
    EXPECT_TRUE(contains(run({"ls"}).output, " test/\n"));
    EXPECT_TRUE(contains(run({"ls", "test/object"}).output, " /pps/test/object\n"));
}

TEST_F(Ppsctl, LsAsJson) {
    const auto object = nlohmann::json::parse(run({"ls", "test", "--json"}).output);
    EXPECT_EQ(object["name"], "object");
    EXPECT_EQ(object["type"], "object");
}

TEST_F(Ppsctl, CatShowsTheText) {
    const ToolRun result = run({"cat", "test/object"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.output, "@object\na::1\nn:n:2\n");
    const auto object = nlohmann::json::parse(run({"cat", "test/object", "--json"}).output);
    EXPECT_EQ(object["attributes"][1]["value"], "2");
}

TEST_F(Ppsctl, WriteMergesAndRemoves) {
    EXPECT_EQ(run({"write", "test/object", "b=line\nfeed", "n:n:3"}).status, 0);
    EXPECT_EQ(run({"write", "--", "test/object", "-a"}).status, 0);
    EXPECT_EQ(run({"cat", "test/object"}).output, "@object\nn:n:3\nb:c:line\\nfeed\n");
    const auto written =
        nlohmann::json::parse(run({"write", "test/object", "a=2", "--json"}).output);
    EXPECT_EQ(written["written"], "/pps/test/object");
}

TEST_F(Ppsctl, WriteTakesAllAttributesOrNone) {
    EXPECT_EQ(run({"write", "test/object", "a=changed", "nonsense"}).status, 2);
    EXPECT_EQ(run({"cat", "test/object"}).output, "@object\na::1\nn:n:2\n");
}

TEST_F(Ppsctl, WriteCreatesOnlyWhenTold) {
    const ToolRun refused = run({"write", "test/new", "a=1"});
    EXPECT_EQ(refused.status, 3);
    EXPECT_TRUE(contains(refused.error, "--create")) << refused.error;
    EXPECT_EQ(run({"write", "test/new", "a=1", "--create"}).status, 0);
    EXPECT_EQ(run({"cat", "test/new"}).output, "@new\na::1\n");
}

TEST_F(Ppsctl, WriteOfTooMuchIsRefused) {
    const ToolRun result = run({"write", "test/object", "a=" + std::string(70000, 'x')});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.error, "the text is too long")) << result.error;
}

TEST_F(Ppsctl, RmRemovesObjectsAndEmptyFolders) {
    const ToolRun full = run({"rm", "test"});
    EXPECT_EQ(full.status, 1);
    EXPECT_TRUE(contains(full.error, "the folder is not empty")) << full.error;
    const ToolRun result = run({"rm", "test/object", "test", "--json"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.output, "{\"removed\":\"/pps/test/object\"}\n{\"removed\":\"/pps/test\"}\n");
    EXPECT_EQ(run({"ls", "test"}).status, 3);
}

TEST_F(Ppsctl, RmGoesOnAfterAFailure) {
    const ToolRun result = run({"rm", "test/none", "test/object"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(run({"cat", "test/object"}).status, 3);
}

TEST_F(Ppsctl, WatchShowsTheObjectAndThenEachChange) {
    ToolProcess watch(m_root.path(), "ppsctl", {"watch", "test/object", "--count", "3"});
    ASSERT_TRUE(watch.waitFor("n:n:2\n")) << watch.error;
    run({"write", "test/object", "a=2"});
    ASSERT_TRUE(watch.waitFor("a::2\n")) << watch.output;
    run({"write", "--", "test/object", "-n"});
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.output, "@object\na::1\nn:n:2\n@object\na::2\n@object\n-n\n");
}

TEST_F(Ppsctl, WatchAsJson) {
    const ToolRun result = run({"watch", "test/object", "--count", "1", "--json"});
    EXPECT_EQ(nlohmann::json::parse(result.output)["object"], "@object");
}

TEST_F(Ppsctl, WatchGivesUpAfterTheTimeout) {
    const ToolRun result = run({"watch", "test/object", "--timeout", "0.2"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.output, "@object\na::1\nn:n:2\n");
}

TEST_F(Ppsctl, WatchEndsWithTheServer) {
    auto agent = std::make_unique<ServedAgent>(m_ppsd);
    ToolProcess watch(m_root.path(), "ppsctl", {"watch", "services/push/ipc"});
    // The watcher's connection has to stand before anything is sent to it.
    for (int i = 0; i < 100 && watch.output.empty(); ++i) {
        agent->send("msg::hello\n");
        watch.waitFor("hello", false, std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(contains(watch.output, "@ipc\nmsg::hello\n")) << watch.error;
    agent.reset();
    EXPECT_EQ(watch.wait(), 3);
    EXPECT_TRUE(contains(watch.error, "the object's server went away")) << watch.error;
}

TEST_F(Ppsctl, WriteSpeaksToAServer) {
    ServedAgent agent(m_ppsd);
    EXPECT_EQ(run({"write", "services/push/ipc", "msg=createSession", "id=7",
                   "dat:json:{\"providerApplicationId\":\"a\"}"})
                  .status,
              0);
    EXPECT_EQ(agent.take("createSession").id, "7");
}

// The client of one message is never full, so it is the share also where a server hangs.
TEST_F(Ppsctl, WritePastTheShareSaysSoWithAServerAndWithout) {
    ASSERT_EQ(m_ppsd.stop(), 0);
    ASSERT_TRUE(m_ppsd.start({"--user-memory", "0"}));
    ASSERT_EQ(chmod(m_ppsd.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(m_ppsd.path("/test/object").c_str(), 0666), 0);
    const int server = open(m_ppsd.path("/test/served?server").c_str(), O_RDWR | O_CREAT, 0666);
    ASSERT_EQ(fchmod(server, 0666), 0);
    for (const char* object : {"test/object", "test/served"}) {
        const std::string error = asOrdinaryUser([&] {
            return run({"write", object, "a=2"}).error;
        });
        EXPECT_TRUE(contains(error, "your share of the object service's memory is spent")) << error;
    }
    close(server);
}

TEST_F(Ppsctl, ClientsShowsWhoHasAServedObjectOpen) {
    const ServedAgent agent(m_ppsd);
    EXPECT_EQ(run({"clients", "services/push/ipc"}).output, "");
    const int client = open(m_ppsd.path("/services/push/ipc").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(client, 0);
    const ToolRun result = run({"clients", "services/push/ipc"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_TRUE(contains(result.output, "  user " + std::to_string(getuid()))) << result.output;
    EXPECT_TRUE(contains(result.output, ", process " + std::to_string(getpid()) + ", "))
        << result.output;
    const auto object =
        nlohmann::json::parse(run({"clients", "services/push/ipc", "--json"}).output);
    EXPECT_EQ(object["pid"], getpid());
    EXPECT_EQ(object["uid"], getuid());
    close(client);
    EXPECT_EQ(run({"clients", "services/push/ipc"}).output, "");
}

TEST_F(Ppsctl, ClientsOfAnObjectThatNobodyServesIsStatus3) {
    EXPECT_EQ(run({"clients", "test/object"}).status, 3);
    EXPECT_EQ(run({"clients", "test/missing"}).status, 3);
    EXPECT_EQ(run({"clients", "test/object?wait"}).status, 2);
}

TEST_F(Ppsctl, MissingObjectIsStatus3) {
    for (const char* verb : {"ls", "cat", "watch", "rm"}) {
        const ToolRun result = run({verb, "test/none"});
        EXPECT_EQ(result.status, 3) << verb;
        EXPECT_TRUE(contains(result.error, "no such object")) << result.error;
        EXPECT_TRUE(contains(result.error, "next: ")) << result.error;
    }
}

TEST_F(Ppsctl, FolderIsNoObject) {
    const ToolRun result = run({"cat", "test"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.error, "this is a folder")) << result.error;
}

TEST_F(Ppsctl, MissingServiceIsStatus3) {
    m_ppsd.stop();
    for (const char* verb : {"ls", "cat", "watch", "rm"}) {
        const ToolRun result = run({verb, "test/object"});
        EXPECT_EQ(result.status, 3) << verb;
        EXPECT_TRUE(contains(result.error, "no object service is mounted")) << result.error;
    }
}

TEST_F(Ppsctl, DeadServiceIsNamed) {
    m_ppsd.kill();
    const ToolRun result = run({"ls"});
    EXPECT_EQ(result.status, 3);
    EXPECT_TRUE(contains(result.error, "dead mount")) << result.error;
    ASSERT_TRUE(m_ppsd.start());
}

TEST(PpsctlUsage, WrongCommandLinesAreStatus2) {
    const std::vector<Words> wrong = {{},
                                      {"no-such-verb"},
                                      {"cat"},
                                      {"cat", ""},
                                      {"watch"},
                                      {"watch", "x", "--count", "0"},
                                      {"watch", "x", "--timeout", "x"},
                                      {"write", "x"},
                                      {"write", "x", "noattribute"},
                                      {"rm"},
                                      {"ls", "/etc"},
                                      {"ls", "/ppsx"},
                                      {"rm", "/pps/../etc/passwd"},
                                      {"rm", "../etc/passwd"},
                                      {"cat", "x?server"}};
    const ScratchRoot root;
    for (const Words& words : wrong) {
        const ToolRun result = runTool(root.path(), "ppsctl", words);
        EXPECT_EQ(result.status, 2) << ::testing::PrintToString(words);
        EXPECT_FALSE(result.error.empty()) << ::testing::PrintToString(words);
    }
}

TEST(PpsctlUsage, HelpFitsInto80Columns) {
    const ScratchRoot root;
    for (const char* verb : {"ls", "cat", "watch", "write", "rm"}) {
        std::istringstream lines(runTool(root.path(), "ppsctl", {verb, "--help"}).output);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80U) << line;
        }
    }
}
