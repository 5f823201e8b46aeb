// What the tests of sessions, messages and their keeping share: a platform folder of their own,
// ports and connections of the kernel's, and short names for what a session shows.

#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/sessions/session.hpp"
#include "tests/support/agent/agent_root.hpp"
#include "tests/support/descriptors.hpp"
#include "tests/support/loopback.hpp"
#include "tests/support/wait_until.hpp"

// A scratch folder that stands for the platform's root (QUIL_ROOT) as long as it lives. The agent's
// singletons read it when they are first asked for.
class PlatformFolder : public AgentRoot {
  public:
    ~PlatformFolder();

    // `path` as the agent knows it, below this folder.
    std::string real(const std::string& path) const { return at(path); }
    void makeFolders(const std::string& path) const { makeFolder(path); }
    // Makes a FIFO, and gives a non-blocking descriptor that reads and writes it. Closed with this.
    int makeFifo(const std::string& path);

    void setImsi(const std::string& imsi) const;
    // Lines of the configuration file.
    void configure(const std::string& lines) const { write("/etc/quilagent.conf", lines); }

  private:
    std::vector<int> m_fifos;
};

// Every test of this group has a platform folder, all lines of the log, and survives writing to a
// connection whose other side is gone, as the agent does.
class SessionsTest : public ::testing::Test {
  protected:
    SessionsTest();

    PlatformFolder m_platform;
};

// A stream connection within the process: `here` is what the agent would hold, `there` is the
// sender's side. Closed with this, unless -1.
struct Connected {
    Connected();
    ~Connected();
    Connected(const Connected&) = delete;
    Connected& operator=(const Connected&) = delete;

    // All that arrives at the sender's side until the other side is closed.
    std::string readUntilClosed() const;
    // Whether the agent's side has been closed without a byte.
    bool isClosedWithoutAByte() const;

    int here = -1;
    int there = -1;
};

// All bytes that a non-blocking descriptor has to give at present.
std::string readAvailable(int descriptor);
// The same, but waits (10 s at the most) until `size` bytes have come.
std::string readBytes(int descriptor, std::size_t size);
// The type number of the session's state, -1 for none.
int stateOf(QuilSession& session);
// Brings a session into the state of that type number, without a trace in the recorded log.
void putIntoState(QuilSession& session, int type);
// A text too long for the places where short texts are kept: its copy asks for 3001 bytes.
std::string longText(char first);
constexpr std::size_t kLongTextBytes = 3001;
