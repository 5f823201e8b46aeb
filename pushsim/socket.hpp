// A TCP socket with an owner, and the few calls on it that have to end in time.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>

using Clock = std::chrono::steady_clock;

// Owns one descriptor; closes it. Moved, never copied.
class Socket {
  public:
    Socket() = default;
    explicit Socket(int descriptor) : m_descriptor(descriptor) {}
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;

    int get() const { return m_descriptor; }
    bool isOpen() const { return m_descriptor != -1; }
    void close();
    // Gives the descriptor up without closing it.
    void release() { m_descriptor = -1; }

  private:
    int m_descriptor = -1;
};

// The milliseconds that are left until the deadline, as poll(2) takes them; rounded up, 0 when it
// has passed.
int millisecondsUntil(Clock::time_point deadline);

// Connects to host and port; the host is an address or a name of this machine's resolver. The
// socket is non-blocking, close-on-exec and sends each write at once. A socket that is not open,
// and the reason in *error, when nobody answers before the deadline.
Socket connectTo(const std::string& host, std::uint16_t port, Clock::time_point deadline,
                 std::string* error);

// Listens on host and port, where no other server does; with port 0 the kernel chooses, and *port
// becomes its choice. A socket that is not open, and the reason in *error, when that cannot be.
Socket listenOn(const std::string& host, std::uint16_t* port, std::string* error);

enum class Ready { Yes, TimedOut };

// Waits until the socket can be read (POLLIN) or written (POLLOUT), or has ended.
Ready waitFor(int socket, short events, Clock::time_point deadline);
