// One place in the queue between the threads.

#pragma once

#include <memory>
#include <utility>

#include "agent/messages/base_message.hpp"

// Owns its message. The type is what the handler dispatches on.
class QuilMessageNode {
  public:
    QuilMessageNode(int type, std::unique_ptr<QuilBaseMessage> message)
        : m_type(type), m_message(std::move(message)) {}
    virtual ~QuilMessageNode() = default;
    QuilMessageNode(const QuilMessageNode&) = delete;
    QuilMessageNode& operator=(const QuilMessageNode&) = delete;

    int getType() const { return m_type; }
    QuilBaseMessage* getMessage() const { return m_message.get(); }

  private:
    int m_type;
    std::unique_ptr<QuilBaseMessage> m_message;
};
