// Follows pushes and channels through the lines of the agent's log.
//
// The agent's log names no push until it is delivered, but its order tells nearly all: one thread
// receives and queues, the other works off the queue and names the application. So the tracer keeps
// the queue that the agent has, and a push is found again by its application and its place in it,
// later by its id. Works at the default verbosity; with -v the log also tells whether a sender
// waits.

#pragma once

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>

// Times in seconds; absent where that stage was not reached or the log holds no times.
struct PushTrace {
    std::string appId;
    std::string id;  // empty while unknown, and for pushes that came without one
    int bytes = -1;  // of the first read
    std::optional<double> received;
    std::optional<double> queued;
    std::optional<double> taken;      // out of the queue
    std::optional<double> delivered;  // handed to the object service
    std::optional<double> answered;
    std::optional<double> closed;
    // Which stages were reached, also without times.
    bool wasQueued = false;
    bool wasTaken = false;
    bool wasDelivered = false;
    std::string answer;        // "accepted", "rejected" or empty
    std::string trouble;       // what went wrong, or empty
    bool nobodyWaits = false;  // known with -v only
};

struct ChannelTrace {
    std::string appId;
    bool isDestroying = false;
    std::optional<double> requested;
    std::optional<double> taken;  // out of the queue
    std::optional<double> ended;  // the push server's part is over
    bool wasTaken = false;
    bool hasEnded = false;
    bool isGood = false;
    std::string trouble;
};

class LogTracer {
  public:
    std::function<void(const PushTrace&)> onPush;  // a push's way is over
    std::function<void(const ChannelTrace&)>
        onChannel;  // a channel was created or destroyed, or not

    // The next line of the log's text (LogLine::text), with its time where there is one.
    void take(std::string_view text, std::optional<double> time);

    // The end of the log: what is still under way is told as it stands.
    void finish();

  private:
    bool takeReceiving(std::string_view text);
    bool takeQueue(std::string_view text);
    bool takeGivenUp(std::string_view text);
    void takePush();
    void takePushOf(const std::string& appId);
    bool takeDelivery(std::string_view text);
    bool takeAnswer(std::string_view text);
    bool takeChannel(std::string_view text);
    void takeTrouble(std::string_view text);
    void endAnswered();
    void endHandled();
    PushTrace* findDelivered(const std::string& id);
    ChannelTrace* findChannel(const std::string& appId, bool isDestroying, bool wasTaken);
    ChannelTrace* findChannelInTrouble(std::string_view text);
    void endChannel(const ChannelTrace& channel);

    std::optional<double> m_now;
    std::optional<PushTrace> m_receiving;    // the main thread's
    std::deque<PushTrace> m_queue;           // received, not taken yet
    std::optional<PushTrace> m_handled;      // the handler thread's
    std::list<PushTrace> m_delivered;        // wait for an answer, oldest first
    std::optional<std::string> m_answering;  // id of the push whose answer the main thread handles
    bool m_isWriting = false;                // the handler writes m_handled to its application
    int m_handledType = 0;                   // of the message that the handler thread took last
    std::list<ChannelTrace> m_channels;      // not ended yet; several at once with a push server
};
