// What the tests of the client side share: a root folder of their own, a socket pair in place of
// the served object, and messages, replies and log lines rendered as text to compare.

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/messages/message_node.hpp"
#include "agent/sessions/session.hpp"
#include "tests/support/agent/agent_root.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/wait_until.hpp"

// Lets allocations of a size within the range fail on the threads of this process while it lives.
class FailingAllocations {
  public:
    FailingAllocations(std::size_t smallest, std::size_t largest);
    ~FailingAllocations();
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;
};

// The bytes of a file in tests/data.
std::string golden(const std::string& name);
// The names of the files in tests/data that begin with `prefix`, sorted.
std::vector<std::string> goldenNames(const std::string& prefix);

// What a stream socket gives until its other side closes; "<open>" behind it when that side stayed
// open for `seconds`.
std::string readToEnd(int socket, double seconds = 5);
// True when the other side of a stream socket has neither closed nor written.
bool isQuiet(int socket);

class ClientsTest : public ::testing::Test {
  protected:
    ClientsTest();

    std::string path(const std::string& inRoot) const { return m_root.at(inRoot); }
    void writeFile(const std::string& inRoot, const std::string& bytes) const {
        m_root.write(inRoot, bytes);
    }
    std::string readFile(const std::string& inRoot) const { return m_root.read(inRoot); }

    // The two files that opening the served object needs.
    void prepareObject() const;
    // Puts one end of a pair of packet sockets in the place of the served object's descriptor. One
    // packet is one message, either way, and what does not fit a read is lost: as it is there.
    void replaceDescriptor();
    // Ends the pair as the object service ends: the next read of the descriptor fails.
    void breakConnection();
    // Both of them around clientIfInit.
    void serveObject();

    void sendRequest(const std::string& text) const;
    // sendRequest, then clientPPSMessageGet, whose result it gives.
    int request(const std::string& text) const;
    // The next reply, waiting for it; "<nothing>" when there was none after `seconds`.
    std::string nextReply(double seconds = 10) const;
    // The replies that are there by now, one behind the other.
    std::string repliesSoFar() const;

    // A session as after "createSession", moved on to `State` where one is given.
    static QuilSession* addSession(const std::string& appId, const std::string& clientId);
    template <typename State>
    static QuilSession* addSession(const std::string& appId, const std::string& clientId) {
        QuilSession* session = addSession(appId, clientId);
        session->enterState(std::make_unique<State>());
        return session;
    }

    // Takes everything out of the queue, one line per message. No handler thread may be running.
    static std::string drainQueue();
    // "type=2 app=a id=1 client=@ipc.17 err=0" and what the class adds. A node whose type is not
    // its message's shows as "node=5 type=2 ...". A line feed in a value shows as "\n".
    static std::string render(const QuilMessageNode& node);

    // A listening TCP socket on 127.0.0.1, non-blocking; `port` gets its number.
    static int listenAnywhere(int* port);
    static int connectTo(int port);

    int m_client = -1;  // the applications' end of the served object

  private:
    AgentRoot m_root;
};
