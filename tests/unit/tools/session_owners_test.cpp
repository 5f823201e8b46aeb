// Which connection an application's session has, out of the agent's log.

#include "tools/quilctl/session_owners.hpp"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using Names = std::set<std::string>;

std::string created(const std::string& app, int connection) {
    return "QUIL:session_requests.cpp(53): quilCreateSession provider id [" + app +
           "] client id [@ipc." + std::to_string(connection) + "]\n";
}

class SessionOwnersTest : public ::testing::Test {
  protected:
    void read(const std::string& text) {
        std::istringstream log(text);
        m_owners.read(log);
    }

    Names of(int connection) {
        return m_owners.applicationsOf("@ipc." + std::to_string(connection));
    }

    SessionOwners m_owners;
};

}  // namespace

TEST_F(SessionOwnersTest, WhoAskedLastHasTheSession) {
    read("Nov 22 10:00:00 host quilagent[7]: " + created("a", 1) + created("b", 1) + "noise\n" +
         created("c", 2));
    EXPECT_EQ(of(1), (Names{"a", "b"}));
    EXPECT_EQ(of(2), (Names{"c"}));
    read(created("a", 2));
    EXPECT_EQ(of(1), (Names{"b"}));
    EXPECT_EQ(of(2), (Names{"a", "c"}));
}

TEST_F(SessionOwnersTest, ConnectionsOfAnotherAgentOrObjectServiceAreForgotten) {
    read(created("a", 1) +
         "QUIL:event_loop.cpp(1): quilAgentLoop: object service lost: errno[5]\n");
    EXPECT_EQ(of(1), Names());
    read(created("a", 1) + "QUIL:event_loop.cpp(1): Entering quilAgentLoop\n");
    EXPECT_EQ(of(1), Names());
}

TEST_F(SessionOwnersTest, ApplicationIdCannotPassForAConnection) {
    read(created("a] client id [@ipc.9", 1));
    EXPECT_EQ(of(9), Names());
    EXPECT_EQ(of(1), (Names{"a] client id [@ipc.9"}));
}
