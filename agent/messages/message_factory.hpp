// Makes internal messages by request name or by type, and copies them when they leave the queue.

#pragma once

#include <memory>
#include <string>

#include "agent/messages/base_message.hpp"
#include "agent/messages/message_node.hpp"

// Stateless; safe on any thread.
class QuilMessageFactory {
  public:
    static QuilMessageFactory* getInstance();

    virtual ~QuilMessageFactory() = default;
    QuilMessageFactory(const QuilMessageFactory&) = delete;
    QuilMessageFactory& operator=(const QuilMessageFactory&) = delete;

    // "createSession" 1, "createChannel" 2, "destroyChannel" 3, every other name 10.
    int getMessageType(const std::string& requestName) const;

    // The reply message for a request of that name; for other names a plain response of type 10.
    std::unique_ptr<QuilBaseMessage> createMessage(const std::string& requestName,
                                                   const std::string& appId, const std::string& id,
                                                   const std::string& clientId) const;
    // The reply message of that type (1 to 4, 9, 10), which also is the type that it carries; null
    // for others.
    std::unique_ptr<QuilBaseMessage> createMessage(int type, const std::string& appId,
                                                   const std::string& id,
                                                   const std::string& clientId) const;

    // A deep copy of the node's message, made by the node's type (1 to 5, 7, 8), the error code and
    // the socket number of a push included. Null for a null node, for other types, and when the
    // message is not of the class that the type stands for.
    std::unique_ptr<QuilBaseMessage> copyMessage(const QuilMessageNode* node) const;

  private:
    QuilMessageFactory() = default;
};
