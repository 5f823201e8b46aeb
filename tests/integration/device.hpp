// A whole device for one test: object service, identity, configuration, push data server and agent,
// in a scratch root. What failed prints the logs of all of them.

#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/child_process.hpp"
#include "tests/support/client_connection.hpp"
#include "tests/support/ppsd_mount.hpp"
#include "tests/support/push_sender.hpp"
#include "tests/support/scratch_root.hpp"
#include "tests/support/wait_until.hpp"

class Device : public ::testing::Test {
  protected:
    static constexpr const char* kPin = "2a3b4c5d";  // the device's PIN without its "0x"
    static constexpr const char* kApp = "com.example.app";

    // Object service up and identity in place; no server and no agent yet.
    void SetUp() override;
    void TearDown() override;

    // Starts the agent as an unprivileged user and waits until its loop runs. False when it ended.
    bool startAgent(const std::vector<std::string>& moreArguments = {"-v", "-v"});
    // As a crash.
    void killAgent();

    // Starts the push data server anew; arguments as of `pushsim serve`.
    void startServer(const std::vector<std::string>& arguments = {});
    // Where the push data server is.
    std::string ppgUrl() const;
    // Port of the application according to the push data server, 0 for none.
    int portOf(const std::string& appId) const;
    std::string serverLog() const { return m_server->output(); }

    void writeObject(const std::string& path, const std::string& text) const;
    std::string readObject(const std::string& path) const;
    void setSim(const std::string& imsi) const;
    // Adds a line to the agent's configuration file.
    void configure(const std::string& line) const;

    std::unique_ptr<ClientConnection> connect() const;
    // Session and channel for a client; returns the port, 0 when something was not as it should be.
    int createChannel(ClientConnection& client, const std::string& appId = kApp);

    std::string agentLog() const { return m_agent.output(); }
    // Waits until the agent's log holds `text` behind `from`.
    bool waitForLog(const std::string& text, std::size_t from = 0) {
        return m_agent.waitForOutput(text, from);
    }

    ScratchRoot m_root;
    std::unique_ptr<PpsdMount> m_ppsd;
    ChildProcess m_agent{m_root.path("/agent.log")};
    std::unique_ptr<ChildProcess> m_server;
};
