// A system that quilctl looks at: object service, identity, configuration and agent in a scratch
// root.

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/integration/tool_process.hpp"
#include "tests/support/ppsd_mount.hpp"

using Words = std::vector<std::string>;

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A socket that listens on a port of the kernel's choice.
class Listening {
  public:
    Listening() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(::listen(m_socket, 5), 0);
        getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
        port = std::to_string(ntohs(address.sin_port));
    }
    ~Listening() { close(m_socket); }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

    std::string port;

  private:
    int m_socket;
};

// A system that lacks nothing; each test takes something away.
class Status : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
        ASSERT_TRUE(m_ppsd.start());
        for (const char* folder :
             {"/system", "/system/nvram", "/services", "/services/push", "/services/cellular",
              "/services/cellular/uicc", "/services/cellular/uicc/card0"}) {
            mkdir(m_ppsd.path(folder).c_str(), 0755);
        }
        write("system/nvram/deviceinfo", {"PIN=0x2a3b", "HardwareID=0x05"});
        write("services/deviceproperties", {"scmbundle=10.3"});
        write("services/cellular/uicc/card0/status_private", {"imsi=302720"});
        std::filesystem::create_directory(m_root.path("/etc"));
        configure("proxy-port 0\nhttp-timeout 20\n");
    }

    void write(const std::string& object, const Words& attributes) {
        Words words = {"write", object, "--create"};
        words.insert(words.end(), attributes.begin(), attributes.end());
        const ToolRun result = runTool(m_root.path(), "ppsctl", words);
        ASSERT_EQ(result.status, 0) << result.error;
    }

    void configure(const std::string& text) {
        std::ofstream(m_root.path("/etc/quilagent.conf")) << text;
    }

    void saveSession(const std::string& port) {
        write("services/push/quilagent",
              {"version=5.0.0", "imsi=302720",
               "dat:json:{\"sessions\":[{\"providerApplicationId\":\"com.app\",\"ppgUrl\":"
               "\"http://x\",\"launchString\":\"\",\"token\":\"2a\",\"port\":" +
                   port + "}]}"});
    }

    // Starts the agent and waits until it serves.
    void startAgent(Words words = {}) {
        // An ordinary user may not set groups, so names none.
        const std::string user = std::to_string(getuid());
        words.insert(words.end(),
                     {"-U", getuid() == 0 ? user + ":" + std::to_string(getgid()) : user});
        m_agent.emplace(m_root.path(), "quilagent", words);
        ASSERT_TRUE(m_agent->waitFor("Entering quilAgentLoop")) << m_agent->output;
    }

    // Creates the channel of com.app at a push server with these options of `pushsim serve`.
    void createChannelAt(Words options) {
        const std::string portFile = m_root.path("/port");
        options.insert(options.begin(),
                       {"serve", "--port-file", portFile, "--ports", "21000-29000"});
        ToolProcess server(m_root.path(), "pushsim", options);
        ASSERT_TRUE(server.waitFor("listening on"));
        std::string port;
        std::ifstream(portFile) >> port;
        const ToolRun session = runTool(m_root.path(), "quilctl", {"create-session", "com.app"});
        ASSERT_EQ(session.status, 0) << session.error;
        const ToolRun channel =
            runTool(m_root.path(), "quilctl",
                    {"create-channel", "com.app", "--ppg", "http://127.0.0.1:" + port});
        ASSERT_EQ(channel.status, 0) << channel.error;
    }

    // The names of the findings, and the exit status.
    std::string check(const Words& more = {}) {
        Words words = {"status", "--check", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        const ToolRun result = runTool(m_root.path(), "quilctl", words);
        EXPECT_EQ(result.error, "");
        return namesIn(result.output, "finding") + std::to_string(result.status);
    }

    // What `key` holds in the lines that have it.
    static std::string namesIn(const std::string& output, const char* key) {
        std::string names;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            const auto object = nlohmann::json::parse(line);
            names += object.contains(key) ? object[key].get<std::string>() + " " : "";
        }
        return names;
    }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
    std::optional<ToolProcess> m_agent;
};
