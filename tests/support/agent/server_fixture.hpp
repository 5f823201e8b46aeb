// What the tests of the push server side share: a scratch root for the agent's files, sockets on
// ports that the kernel chose, and raw peers that may say anything.

#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "agent/sessions/session.hpp"
#include "tests/support/agent/agent_root.hpp"
#include "tests/support/descriptors.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/wait_until.hpp"

// True in a program built with a sanitizer that cannot live with a limit on address space.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

// A folder of this test's own as the root of the agent's paths, with the device's identity (PIN
// 2A00, OS version 10.3, model 0x87) and a configuration in it. Every line of the log is recorded,
// and no proxy of the environment is used. Make one before the first singleton.
class ServerRoot : public AgentRoot {
  public:
    explicit ServerRoot(const std::string& configuration = "");
};

// While it lives no descriptor can be opened (`spare` more can).
class DescriptorShortage {
  public:
    explicit DescriptorShortage(int spare = 0);
    ~DescriptorShortage();
    DescriptorShortage(const DescriptorShortage&) = delete;
    DescriptorShortage& operator=(const DescriptorShortage&) = delete;

  private:
    unsigned long m_before;
};

// A free port of 127.0.0.1 that nobody else is given. The code under test can listen on it all the
// same: both sides reuse addresses, and this side does not listen unless told to.
class ReservedPort {
  public:
    ReservedPort();
    ~ReservedPort();
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;

    int number() const { return m_number; }
    // Takes the port for good: nobody else can listen on it.
    void listenOnIt() const;
    // After listenOnIt: the next connection, -1 once wakeAcceptors was called.
    int accept() const;
    void wakeAcceptors() const;

  private:
    int m_socket;
    int m_number = 0;
};

// One side of a TCP connection to a port of 127.0.0.1.
class Peer {
  public:
    explicit Peer(int port);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool isConnected() const { return m_socket != -1; }
    // Returns when the bytes are in the other side's kernel, accepted or not.
    void send(const std::string& bytes) const;
    // Does not wait, and does not mind a connection that has gone. False when it has.
    bool trySend(const std::string& bytes) const;
    void closeWriting() const;
    void close();
    void reset();

    // Waits until the other side has closed the connection.
    bool seesClose(double seconds = 10) const;
    bool isOpen() const;
    // Everything up to the close.
    std::string readAll() const;

  private:
    int m_socket = -1;
};

// A TCP server that hands each connection, one after the other, to a function on its own thread and
// closes it afterwards.
class RawServer {
  public:
    explicit RawServer(std::function<void(int connection)> serve);
    ~RawServer();
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    int port() const { return m_port.number(); }
    std::string url(const std::string& path = "/") const;

  private:
    void run();

    ReservedPort m_port;
    std::function<void(int)> m_serve;
    std::mutex m_lock;
    int m_connection = -1;  // under m_lock
    bool m_stops = false;   // under m_lock
    std::thread m_thread;
};

// For functions of a RawServer: reads up to the empty line behind a request, sends until the peer
// goes away, waits until it goes away.
std::string readRequest(int connection);
bool sendBytes(int connection, const std::string& bytes);
void waitForClose(int connection);

// Adds a session in state Create to the registry, which owns it.
QuilSession* addSession(const std::string& appId, const std::string& clientId);

// Seconds since a moment.
class Stopwatch {
  public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    }

  private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};
