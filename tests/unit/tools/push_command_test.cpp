// Somebody's command for each push.

#include "tools/quilctl/push_command.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

using namespace std::chrono_literals;

namespace {

class PushCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        std::string folder = std::filesystem::temp_directory_path() / "push_command_XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        m_folder = folder;
        m_push.id = " m1";
        m_push.data = "hello";
        m_push.senderWaits = true;
        m_push.headers = {{"Content-Type", " text/plain "}, {"X", " 1"}, {"x", " 2"}};
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    std::optional<int> run(const std::string& command, std::chrono::milliseconds time = 30s) {
        return runPushCommand(command, "com.app", m_push, std::chrono::steady_clock::now() + time);
    }

    // What the command writes to standard output.
    std::string outputOf(const std::string& command) {
        const std::string file = m_folder / "out";
        run("{ " + command + "; } > " + file);
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }

    std::filesystem::path m_folder;
    quilclient::Push m_push;
};

}  // namespace

TEST_F(PushCommand, GivesTheExitStatus) {
    EXPECT_EQ(run("true"), 0);
    EXPECT_EQ(run("exit 7"), 7);
    EXPECT_EQ(run("no-such-command 2>/dev/null"), 127);
    EXPECT_EQ(run("kill -TERM $$"), 128 + SIGTERM);
}

TEST_F(PushCommand, GetsTheDataOnStandardInput) {
    m_push.data = std::string("a\0\n\xff", 4);
    EXPECT_EQ(outputOf("cat"), m_push.data);
}

TEST_F(PushCommand, GetsMoreDataThanAPipeHolds) {
    m_push.data = std::string(300000, 'x');
    EXPECT_EQ(outputOf("sleep 0.05; wc -c | tr -d ' '"), "300000\n");
}

TEST_F(PushCommand, MayIgnoreItsInput) {
    m_push.data = std::string(300000, 'x');
    EXPECT_EQ(run("exec <&-; exit 3"), 3);
}

TEST_F(PushCommand, GetsIdAndHeadersInItsEnvironment) {
    EXPECT_EQ(outputOf("printf '%s|%s|%s|%s' \"$QUIL_APP\" \"$QUIL_PUSH_ID\" $QUIL_SENDER_WAITS "
                       "$QUIL_DUPLICATE"),
              "com.app| m1|1|0");
    EXPECT_EQ(outputOf("printf '%s' \"$QUIL_HEADERS\""), "Content-Type: text/plain\nX: 1\nx: 2\n");
    EXPECT_EQ(outputOf("printf '%s' \"$QUIL_HEADER_CONTENT_TYPE\""), "text/plain");
    EXPECT_EQ(outputOf("printf '%s' \"$QUIL_HEADER_X\""), "1\n2");
}

TEST_F(PushCommand, IsToldOfAPushThatCameShort) {
    EXPECT_EQ(outputOf("echo $QUIL_SHORT"), "0\n");
    m_push.headers.push_back({"Content-Length", " 1000"});
    EXPECT_EQ(outputOf("echo $QUIL_SHORT"), "1\n");
}

TEST_F(PushCommand, InheritedVariablesDoNotHideThePush) {
    setenv("QUIL_PUSH_ID", "inherited", 1);
    setenv("QUIL_TEST_OTHER", "kept", 1);
    EXPECT_EQ(outputOf("printf '%s|%s' \"$QUIL_PUSH_ID\" \"$QUIL_TEST_OTHER\""), " m1|kept");
}

TEST_F(PushCommand, IsKilledWithItsChildrenWhenTimeIsOver) {
    const std::string file = m_folder / "late";
    EXPECT_EQ(run("(sleep 0.3; touch " + file + ") & wait", 50ms), std::nullopt);
    EXPECT_EQ(run("sleep 0.4"), 0);
    EXPECT_FALSE(std::filesystem::exists(file));
}
