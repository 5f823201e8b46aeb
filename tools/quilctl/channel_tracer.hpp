// Follows channels through the lines of the agent's log: asked for, taken out of the queue, and
// what came of it. Several exchanges with push servers may be under way, of each application one.

#pragma once

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>

// Times in seconds; absent where that stage was not reached or the log holds no times.
struct ChannelTrace {
    std::string appId;
    bool isDestroying = false;
    bool isRestored = false;  // of a saved session, at the agent's start; told only when it failed
    std::optional<double> requested;
    std::optional<double> taken;  // out of the queue
    std::optional<double> ended;  // the push server's part is over
    bool wasTaken = false;
    bool hasEnded = false;
    bool isRegistered = false;  // the push server said yes, or to a deregistration
    bool hasNoPin = false;      // then the application is told that there is no channel
    std::string trouble;        // what went wrong, or empty

    // What the push server was asked and said, as far as the log tells; most of it with -v only.
    std::optional<int> portBefore;          // the session's when the server was asked; -1 for none
    std::optional<int> code;                // behind "rc="
    std::optional<std::string> portHeader;  // its value
    bool hasNewPort = false;
    bool isPortKnown = false;    // whether it has one or not
    bool hasNoPort = false;      // of a channel that was created
    bool isTroubleOpen = false;  // somebody's trouble was told without a name

    // Whether all is as its application hopes.
    bool isGood() const { return isRegistered && !hasNoPin && trouble.empty(); }
};

class ChannelTracer {
  public:
    using Listener = std::function<void(const ChannelTrace&)>;

    Listener onRequest = [](const ChannelTrace&) {};
    Listener onEnd = [](const ChannelTrace&) {};

    // As of PushTracer.
    void take(std::string_view text, std::optional<double> time);
    void finish();

  private:
    bool takeRequest(std::string_view text);
    bool takeQueue(std::string_view text);
    bool takeRegistered(std::string_view text);
    bool takeEnd(std::string_view text);
    bool takeOpening(std::string_view text);
    bool takeAnswer(std::string_view text);
    void takePorts(std::string_view text);
    void takePin(std::string_view text);
    void takeTrouble(std::string_view text);
    ChannelTrace* find(const std::string& appId, bool isDestroying, bool wasTaken);
    ChannelTrace* findInTrouble(std::string_view text);
    ChannelTrace* findOnlyTaken();
    void end(ChannelTrace channel);
    void noteNoPin(const std::string& reason);

    std::optional<double> m_now;
    int m_handledType = 0;               // of the message that the handler thread took last
    std::list<ChannelTrace> m_channels;  // not ended yet
    std::list<ChannelTrace> m_created;   // the next list of ports tells whether they have one
    std::string m_openingTrouble;        // why a port could not be opened; whose tells a later line
    std::string m_lookedFor;             // device value that is being read
    std::optional<int> m_listedPorts;    // so far, of the list that the main thread logs
};

// The request it is about, such as "createChannel".
const char* kindOf(const ChannelTrace& channel);

// In words, such as "channel created".
std::string outcomeOf(const ChannelTrace& channel);
