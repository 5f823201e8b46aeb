// A push connection that waits for its application's answer.

#pragma once

#include <atomic>
#include <string>

// Owns the descriptor of the accepted connection: destroying the object closes it.
class QuilPushSocket {
  public:
    QuilPushSocket(std::string pushId, int socket);
    virtual ~QuilPushSocket();
    QuilPushSocket(const QuilPushSocket&) = delete;
    QuilPushSocket& operator=(const QuilPushSocket&) = delete;

    const std::string& getPushId() const { return m_pushId; }
    int getSocket() const { return m_socket; }

    // Gives up the descriptor without closing it.
    void release() { m_socket = -1; }

  private:
    std::string m_pushId;
    // -1 for none. Whoever holds the object may be sending on it while it is given up.
    std::atomic<int> m_socket;
};
