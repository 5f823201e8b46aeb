// What /proc tells, of this very process and its sockets.

#include "tools/quilctl/proc.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>

namespace {

AgentProcess agent(pid_t process, uid_t user, bool isRootKnown) {
    AgentProcess described;
    described.pid = process;
    described.user = user;
    described.isRootKnown = isRootKnown;
    return described;
}

}  // namespace

TEST(Proc, AgentsThatCannotBeTheServerAreStrangers) {
    const std::vector<AgentProcess> left =
        withoutStrangers({agent(1, 44, false), agent(2, 1000, false), agent(3, 1000, true)}, 44);
    ASSERT_EQ(left.size(), 2U);
    EXPECT_EQ(left[0].pid, 1);
    EXPECT_EQ(left[1].pid, 3) << "it is ours for certain";
}

TEST(Proc, HolderOfASocketIsFound) {
    const int mine = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(mine, 0);
    std::vector<OpenSocket> sockets;
    ASSERT_TRUE(readOpenSockets(getpid(), &sockets));
    const auto found = std::find_if(sockets.begin(), sockets.end(), [mine](const OpenSocket& open) {
        return open.descriptor == mine;
    });
    ASSERT_NE(found, sockets.end());
    EXPECT_EQ(findHolder(found->inode), getpid());
    close(mine);
    EXPECT_EQ(findHolder(found->inode), 0);
    sockets.clear();
    EXPECT_FALSE(readOpenSockets(0, &sockets)) << "no such process";
}

TEST(Proc, StartOfAProcessIsByTheClockOfFiles) {
    const auto before = std::chrono::system_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    const auto after = std::chrono::system_clock::now();
    const auto tick = std::chrono::milliseconds(20);
    EXPECT_GE(startOf(child), before - tick);
    EXPECT_LE(startOf(child), after + tick);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(startOf(child), std::chrono::system_clock::time_point());
}

TEST(Proc, StoppedProcessIsSeenToBe) {
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    const auto isStopped = [child] {
        const std::vector<AgentProcess> all = findProcesses(programOf(child));
        return std::any_of(all.begin(), all.end(), [child](const AgentProcess& process) {
            return process.pid == child && process.isStopped;
        });
    };
    EXPECT_FALSE(isStopped());
    kill(child, SIGSTOP);
    waitpid(child, nullptr, WUNTRACED);
    EXPECT_TRUE(isStopped());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}
