// The applications' connections that have ended, out of the agent's log: who is addressed there
// hears nothing.

#pragma once

#include <deque>
#include <string>
#include <string_view>

class GoneClients {
  public:
    // As of PushTracer.
    void take(std::string_view text);

    // Whether the log told of the end of `clientId`'s connection, and of none after it by the same
    // name: an object service that was started again names them anew.
    bool has(const std::string& clientId) const;

  private:
    std::deque<std::string> m_clients;  // oldest first
    bool m_isNew = false;               // the next name is that of a new connection
};
