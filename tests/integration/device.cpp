// Everything here is the real thing: the mount, the programs of this build, sockets on the
// loopback.

#include "tests/integration/device.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace {

constexpr const char* kLiveLine = "Entering quilAgentLoop...";
constexpr uid_t kAgentUser = 65534;  // when the test runs as root

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The first of 250 ports, below the range from which the system takes some by itself, that no other
// test process has. A name of the abstract namespace keeps them until this process ends.
int takePorts() {
    constexpr int kRanges = 80;
    for (int i = 0; i < kRanges; ++i) {
        const int range = (getpid() + i) % kRanges;
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        snprintf(name.sun_path + 1, sizeof name.sun_path - 1, "quil-test-ports-%d", range);
        const int keeper = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (bind(keeper, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) {
            return 12000 + range * 250;
        }
        close(keeper);
    }
    ADD_FAILURE() << "other tests have all ports";
    return 12000;
}

}  // namespace

void Device::SetUp() {
    QUIL_SKIP_WITHOUT_FUSE();
    m_ppsd = std::make_unique<PpsdMount>(m_root);
    ASSERT_TRUE(m_ppsd->start());
    fs::create_directories(m_root.path("/etc"));
    configure("proxy-port 0");
    writeObject("/pps/system/nvram/deviceinfo", "PIN::0x2a3b4c5d\nHardwareID::0x0400\n");
    writeObject("/pps/services/deviceproperties", "scmbundle::10.3.1\n");
    setSim("001010000000001");
    const std::string folder = m_root.path("/pps/services/push");
    fs::create_directories(folder);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(folder.c_str(), kAgentUser, kAgentUser), 0);
    }
}

void Device::TearDown() {
    if (HasFailure()) {
        std::fprintf(stderr, "---- log of the agent\n%s----\n", m_agent.output().c_str());
        if (m_server != nullptr) {
            std::fprintf(stderr, "---- log of the push server\n%s----\n", serverLog().c_str());
        }
    }
}

bool Device::startAgent(const std::vector<std::string>& moreArguments) {
    const std::string user = std::to_string(geteuid());
    std::vector<std::string> words = {builtProgram("quilagent"), "-U",
                                      geteuid() == 0 ? "65534:65534" : user};
    words.insert(words.end(), moreArguments.begin(), moreArguments.end());
    const std::size_t before = agentLog().size();
    return m_agent.start(words) && m_agent.waitForOutput(kLiveLine, before);
}

void Device::killAgent() {
    m_agent.signal(SIGKILL);
    ASSERT_NE(m_agent.wait(), -1);
}

void Device::startServer(const std::vector<std::string>& arguments) {
    const std::string portFile = m_root.path("/server.port");
    const std::string port = readFile(portFile);
    m_server = std::make_unique<ChildProcess>(m_root.path("/server.log"));
    static const int firstPort = takePorts();
    std::vector<std::string> words = {
        builtProgram("pushsim"),
        "serve",
        "--log",
        "--state",
        m_root.path("/server.json"),
        "--port-file",
        portFile,
        "--listen",
        "127.0.0.1:" + (port.empty() ? "0" : port.substr(0, port.find('\n'))),
        "--ports",
        std::to_string(firstPort) + "-" + std::to_string(firstPort + 249)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::size_t before = m_server->output().size();
    ASSERT_TRUE(m_server->start(words));
    ASSERT_TRUE(waitUntil([&] { return m_server->output().size() > before; }));
    ASSERT_TRUE(waitUntil([&] { return !readFile(portFile).empty(); }));
}

std::string Device::ppgUrl() const {
    const std::string port = readFile(m_root.path("/server.port"));
    return "http://127.0.0.1:" + port.substr(0, port.find('\n'));
}

int Device::portOf(const std::string& appId) const {
    const std::string state = readFile(m_root.path("/server.json"));
    const std::size_t name = state.find("\"" + appId + "\"");
    return name == std::string::npos ? 0 : std::atoi(state.c_str() + state.find(':', name) + 1);
}

void Device::writeObject(const std::string& path, const std::string& text) const {
    fs::create_directories(fs::path(m_root.path(path)).parent_path());
    const int descriptor =
        open(m_root.path(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    ASSERT_GE(descriptor, 0) << path;
    EXPECT_EQ(write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()))
        << path;
    close(descriptor);
}

std::string Device::readObject(const std::string& path) const {
    return readFile(m_root.path(path));
}

void Device::setSim(const std::string& imsi) const {
    writeObject("/pps/services/cellular/uicc/card0/status_private", "imsi::" + imsi + "\n");
}

void Device::configure(const std::string& line) const {
    std::ofstream(m_root.path("/etc/quilagent.conf"), std::ios::app) << line << "\n";
}

std::unique_ptr<ClientConnection> Device::connect() const {
    return std::make_unique<ClientConnection>(m_root.path("/pps/services/push/ipc"));
}

int Device::createChannel(ClientConnection& client, const std::string& appId) {
    client.request("createSession", "s", appId);
    EXPECT_EQ(client.next().text, "@ipc\nmsg::onCreateSessionComplete\nid::s\n");
    client.request("createChannel", "c", appId, "\"ppgUrl\":\"" + ppgUrl() + "\"");
    EXPECT_EQ(client.next().text, std::string("@ipc\nmsg::onCreateChannelComplete\nid::c\n") +
                                      "dat:json:{\"token\":\"" + kPin + "\"}\n");
    const int port = portOf(appId);
    EXPECT_TRUE(isListening(port)) << port;
    return port;
}
