// The connection to the agent: one descriptor, messages out and messages in. Never blocks.

#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "client/messages.hpp"
#include "quilclient/result.hpp"

namespace quilclient {

class Connection {
  public:
    Connection() = default;
    ~Connection() { close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Opens the push object, or calls `opener` where it is not empty. A failure tells who is
    // missing: kNoObjectService, kNoAgent, kNoPermission or kSystemError.
    Result open(const std::function<int()>& opener);

    // Closes the descriptor and forgets what was not sent and not read.
    void close();

    bool isOpen() const { return m_descriptor >= 0; }
    int descriptor() const { return m_descriptor; }

    // Appends the messages that are there. kConnectionLost when the agent is gone; messages that
    // came before its end are given all the same.
    Result receive(std::vector<std::string>* messages);

    // Sends one message, or keeps it while the agent's queue is full (hasBacklog(); flush() tries
    // again). kConnectionLost, or kQueueFull when the backlog is full too.
    Result send(std::string message);
    Result flush();
    bool hasBacklog() const { return !m_backlog.empty(); }

  private:
    Result writeOne(const std::string& message, bool* isSent);

    int m_descriptor = -1;  // owned
    MessageSplitter m_splitter;
    std::deque<std::string> m_backlog;
};

}  // namespace quilclient
