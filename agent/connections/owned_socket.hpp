// A socket that nobody else owns yet.

#pragma once

#include <unistd.h>

#include <utility>

// Closes its socket, unless that is -1 or was released to another owner.
class OwnedSocket {
  public:
    explicit OwnedSocket(int socket) : m_socket(socket) {}
    ~OwnedSocket() {
        if (m_socket != -1) {
            ::close(m_socket);
        }
    }
    OwnedSocket(const OwnedSocket&) = delete;
    OwnedSocket& operator=(const OwnedSocket&) = delete;

    int get() const { return m_socket; }
    int release() { return std::exchange(m_socket, -1); }
    // Closes what it has and takes another.
    void reset(int socket) { OwnedSocket before(std::exchange(m_socket, socket)); }

  private:
    int m_socket;
};
