#include "tests/support/agent/clients_fixture.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <new>
#include <sstream>
#include <thread>

#include "agent/clients/client_object.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/requests/request_reader.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"
#include "tests/support/loopback.hpp"

namespace {

constexpr int kSentinelType = 99;
constexpr std::size_t kLargestReply = 512 * 1024;

std::atomic<std::size_t> g_failFrom{1};
std::atomic<std::size_t> g_failTo{0};

void* allocate(std::size_t size) {
    const bool fails = size >= g_failFrom && size <= g_failTo;
    return fails ? nullptr : std::malloc(size == 0 ? 1 : size);
}

}  // namespace

// The allocations of the program, so that FailingAllocations can refuse some. Never inlined: the
// compiler would take the free in it for a mismatch.
__attribute__((noinline)) void* operator new(std::size_t size) {
    void* memory = allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

__attribute__((noinline)) void* operator new(std::size_t size,
                                             const std::nothrow_t& /*unused*/) noexcept {
    return allocate(size);
}

__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

FailingAllocations::FailingAllocations(std::size_t smallest, std::size_t largest) {
    g_failFrom = smallest;
    g_failTo = largest;
}

FailingAllocations::~FailingAllocations() {
    g_failFrom = 1;
    g_failTo = 0;
}

namespace {

std::filesystem::path dataFolder() {
    const char* source = std::getenv("QUIL_SOURCE");
    return std::filesystem::path(source == nullptr ? "." : source) / "tests" / "data";
}

std::string contents(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream.is_open()) << file;
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

bool isReadable(int descriptor, double seconds) {
    pollfd watched = {descriptor, POLLIN, 0};
    return poll(&watched, 1, static_cast<int>(seconds * 1000)) == 1;
}

}  // namespace

std::string golden(const std::string& name) {
    return contents(dataFolder() / name);
}

std::vector<std::string> goldenNames(const std::string& prefix) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dataFolder())) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(prefix)) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string readToEnd(int socket, double seconds) {
    std::string all;
    while (isReadable(socket, seconds)) {
        char buffer[4096];
        const ssize_t count = recv(socket, buffer, sizeof buffer, 0);
        if (count <= 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(count));
    }
    return all + "<open>";
}

bool isQuiet(int socket) {
    return !isReadable(socket, 0);
}

// Descriptors stay open until the process ends: a thread of the agent may be using them.
ClientsTest::ClientsTest() {
    m_root.makeFolder("/pps/services/push");
    writeFile("/pps/system/nvram/deviceinfo", "@deviceinfo\nPIN::0x2a3b\nHardwareID::0x1\n");
    raiseVerbosity(2);
}

void ClientsTest::prepareObject() const {
    writeFile("/pps/services/push/ipc", "");
    writeFile("/pps/services/push/ipc?server", "");
}

void ClientsTest::replaceDescriptor() {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const int largest = kLargestReply;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &largest, sizeof largest);
    ASSERT_NE(dup3(ends[0], clientDescriptor(), O_CLOEXEC), -1);
    close(ends[0]);
    m_client = ends[1];
}

// A connection that ends with something unread was broken off.
void ClientsTest::breakConnection() {
    ASSERT_EQ(write(clientDescriptor(), "unread", 6), 6);
    close(m_client);
    m_client = -1;
}

void ClientsTest::serveObject() {
    prepareObject();
    ASSERT_NE(clientIfInit(), -1);
    replaceDescriptor();
    clearRecordedLines();
}

void ClientsTest::sendRequest(const std::string& text) const {
    ASSERT_EQ(send(m_client, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
}

int ClientsTest::request(const std::string& text) const {
    sendRequest(text);
    return clientPPSMessageGet();
}

std::string ClientsTest::nextReply(double seconds) const {
    if (!isReadable(m_client, seconds)) {
        return "<nothing>";
    }
    std::string reply(kLargestReply, '\0');
    const ssize_t count = recv(m_client, reply.data(), reply.size(), 0);
    reply.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return reply;
}

std::string ClientsTest::repliesSoFar() const {
    std::string all;
    while (isReadable(m_client, 0)) {
        all += nextReply(0);
    }
    return all;
}

QuilSession* ClientsTest::addSession(const std::string& appId, const std::string& clientId) {
    auto session = std::make_unique<QuilSession>(appId, clientId);
    QuilSessionManager::getInstance()->addSession(session);
    return QuilSessionManager::getInstance()->getSessionByAppId(appId);
}

std::string ClientsTest::drainQueue() {
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    queue->push(std::make_unique<QuilMessageNode>(kSentinelType, nullptr));
    std::string all;
    for (;;) {
        const std::unique_ptr<QuilMessageNode> node = queue->pop();
        if (node->getType() == kSentinelType) {
            return all;
        }
        all += render(*node) + "\n";
    }
}

std::string ClientsTest::render(const QuilMessageNode& node) {
    const QuilBaseMessage& message = *node.getMessage();
    std::string text;
    if (node.getType() != message.getMessageType()) {
        text = "node=" + std::to_string(node.getType()) + " ";
    }
    text += "type=" + std::to_string(message.getMessageType()) + " app=" + message.getName() +
            " id=" + message.getId() + " client=" + message.getClientId() +
            " err=" + std::to_string(message.getErrorCode());
    if (const auto* request = dynamic_cast<const QuilServerRegMessage*>(&message)) {
        text += " url=" + request->getPpgUrl() + (request->isRegister() ? " register" : " leave");
    }
    if (const auto* channel = dynamic_cast<const QuilCreateChannelCompleteMessage*>(&message)) {
        text += " token=" + channel->getToken();
    }
    if (dynamic_cast<const QuilPushMessage*>(&message) != nullptr) {
        text += " push";
    }
    for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at)) {
        text.replace(at, 1, "\\n");
    }
    return text;
}

int ClientsTest::listenAnywhere(int* port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    EXPECT_TRUE(bindLoopback(listener));
    EXPECT_EQ(listen(listener, 5), 0);
    *port = boundPort(listener);
    return listener;
}

int ClientsTest::connectTo(int port) {
    const int sender = connectLoopback(port);
    EXPECT_NE(sender, -1);
    return sender;
}
