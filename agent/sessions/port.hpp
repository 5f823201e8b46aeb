// The port on which one application's pushes arrive. Its name is the provider application id.

#pragma once

#include <atomic>

#include "agent/sessions/port_changes.hpp"
#include "agent/support/base_object.hpp"

// Held by value in a session and written under that session's lock. The event loop reads it through
// the list of ports without that lock, which is why each value is atomic. The name is set before
// the session is shared.
class QuilPort : public QuilBaseObject {
  public:
    QuilPort() = default;
    ~QuilPort() override = default;
    QuilPort(const QuilPort&) = delete;
    QuilPort& operator=(const QuilPort&) = delete;

    // TCP port number learnt from the push data server; below 1 when there is none.
    int getPort() const { return m_port; }
    void setPort(int port) { change(&m_port, port); }

    // Listening descriptor, -1 when the session does not listen.
    int getSocket() const { return m_socket; }
    void setSocket(int socket) { change(&m_socket, socket); }

    // Set while a push waits on the listening socket but the application has not connected yet: the
    // event loop then does not watch the socket, so that waiting costs no processor time.
    bool isWaitingForClient() const { return m_waitsForClient; }
    void setWaitingForClient(bool waits) {
        if (m_waitsForClient.exchange(waits) != waits) {
            notePortChange();
        }
    }

  private:
    // From one number for none to another is no change.
    static void change(std::atomic<int>* value, int next) {
        const int before = value->exchange(next);
        if (before != next && (before > 0 || next > 0)) {
            notePortChange();
        }
    }

    std::atomic<int> m_port{0};
    std::atomic<int> m_socket{0};
    std::atomic<bool> m_waitsForClient{false};
};
