// One connection that brings a push: reads it as its bytes come, and hands it on once it is in.

#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "agent/connections/owned_socket.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/sessions/session.hpp"

// Main thread only.
class PushConnection {
  public:
    using Clock = std::chrono::steady_clock;

    enum class Progress {
        Waits,  // all that was there has been read, and the push is not in yet
        Done    // the push was queued or dropped; there is nothing left to do
    };

    // Takes an accepted socket over for a session, which must outlive this; when it throws, without
    // memory, the socket is still the caller's. The time for the push
    // to come in ("push-timeout") runs from now.
    PushConnection(int socket, QuilSession& session);
    PushConnection(const PushConnection&) = delete;
    PushConnection& operator=(const PushConnection&) = delete;

    // Reads what is there, without waiting. Throws without memory; then the connection is to be
    // dropped.
    Progress advance();

    // Gives it so much more time, in which nobody could see to it.
    void postpone(Clock::duration time);
    // Logs that the time was up.
    void logTimeout() const;

    int socket() const { return m_socket.get(); }
    const QuilSession& session() const { return m_session; }
    const std::string& appId() const { return m_appId; }
    // When the time is up; Clock::time_point::max() without a limit.
    Clock::time_point deadline() const { return m_deadline; }
    // When bytes came last, or when it was accepted.
    Clock::time_point lastHeard() const { return m_lastHeard; }

  private:
    // One read. Waits: nothing is there. Done: read on, or finish.
    Progress receive(int* count);
    void finish(int lastCount);
    int readBehindPush(int lastCount);
    void closeAfterPush();

    QuilSession& m_session;
    std::string m_appId;
    int m_timeoutSeconds;
    Clock::time_point m_lastHeard;
    Clock::time_point m_deadline;
    std::unique_ptr<QuilPushMessage> m_push;  // null until the first read
    OwnedSocket m_socket;  // last: a constructor that throws must not have taken it over
};
