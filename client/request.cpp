#include "quilclient/request.hpp"

#include <poll.h>

#include <algorithm>
#include <exception>

#include "client/connection.hpp"
#include "client/messages.hpp"

namespace quilclient {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kRequestId = "1";      // the only request of its connection
constexpr milliseconds kFullQueuePause{50};  // until a full queue of the agent is tried again

// Waits for input, no longer than until `deadline`. With `isBacklogged` only for a short while.
void waitForInput(int descriptor, Clock::time_point deadline, bool isBacklogged) {
    auto pause = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    pause =
        std::clamp(pause, milliseconds(0), isBacklogged ? kFullQueuePause : milliseconds(60000));
    pollfd entry{descriptor, POLLIN, 0};
    poll(&entry, 1, static_cast<int>(pause.count()));
}

// Looks for the answer among `messages`; pushes and answers for others pass by. A request that
// comes back is an answer too: that there is no agent.
bool findReply(Verb verb, const std::vector<std::string>& messages, Reply* reply) {
    for (const std::string& text : messages) {
        const Incoming incoming = decodeMessage(text);
        if (isEcho(incoming)) {
            reply->result = resultOf(kObjectInTheWay);
            return true;
        }
        if (isReplyTo(verb, incoming) && incoming.id == kRequestId) {
            reply->result = outcomeOf(verb, incoming);
            reply->token = incoming.token;
            reply->channel = incoming.channel;
            return true;
        }
    }
    return false;
}

Reply exchange(Connection& connection, Verb verb, Clock::time_point deadline) {
    Reply reply;
    while (isAnswered(verb) || connection.hasBacklog()) {
        if (Clock::now() >= deadline) {
            reply.result = resultOf(kTimedOut);
            return reply;
        }
        waitForInput(connection.descriptor(), deadline, connection.hasBacklog());
        std::vector<std::string> messages;
        const Result received = connection.receive(&messages);
        if (findReply(verb, messages, &reply)) {
            return reply;
        }
        const Result sent = connection.flush();
        if (!received.ok() || !sent.ok()) {
            reply.result = received.ok() ? sent : received;
            return reply;
        }
    }
    if (!isAnswered(verb)) {
        // No agent has anything to say here; an ordinary object gives back what it was told.
        std::vector<std::string> messages;
        connection.receive(&messages);
        findReply(verb, messages, &reply);
    }
    return reply;
}

Reply sendOne(const Request& request, milliseconds timeout, const std::function<int()>& open) {
    const auto deadline = Clock::now() + timeout;
    std::string text;
    Reply reply;
    reply.result = encodeRequest(request, kRequestId, &text);
    Connection connection;
    if (reply.result.ok()) {
        reply.result = connection.open(open);
    }
    if (reply.result.ok()) {
        reply.result = connection.send(std::move(text));
    }
    return reply.result.ok() ? exchange(connection, request.verb, deadline) : reply;
}

}  // namespace

Reply sendRequest(const Request& request, milliseconds timeout,
                  const std::function<int()>& open) noexcept {
    Reply reply;
    try {
        return sendOne(request, timeout, open);
    } catch (const std::exception&) {
        reply.result.code = kSystemError;
        reply.result.words = "out of memory";  // short enough to need none
    }
    return reply;
}

}  // namespace quilclient
