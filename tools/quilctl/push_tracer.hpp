// Follows pushes through the lines of the agent's log.
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
#include <optional>
#include <string>
#include <string_view>

#include "tools/quilctl/gone_clients.hpp"

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
    bool hasNoReader = false;  // its application's connection had ended when it was delivered
    // A push of the same id waited for its answer, and which of their connections stands is not
    // known: this one's when the earlier sender had hung up, else the earlier. Told with -v only.
    bool sharesId = false;
    // The answer went to this one or to another of its id.
    bool sharesAnswer = false;
};

class PushTracer {
  public:
    using Listener = std::function<void(const PushTrace&)>;

    Listener onArrival = [](const PushTrace&) {};   // its first bytes are in
    Listener onDelivery = [](const PushTrace&) {};  // its application has it
    Listener onEnd = [](const PushTrace&) {};       // its way is over; told of each push

    // The next line of the log's text (LogLine::text), with its time where there is one.
    void take(std::string_view text, std::optional<double> time);

    // The end of the log: what is still under way is told as it stands.
    void finish();

  private:
    struct Answer {
        std::string id;
        bool isAccept;
        std::optional<double> time;
        bool isMatched = false;
    };

    bool takeReceiving(std::string_view text);
    bool takeGivenUp(std::string_view text);
    bool takeLetGo(std::string_view text);
    bool takeQueue(std::string_view text);
    void takePush();
    void takePushOf(const std::string& appId);
    bool takeKeeping(std::string_view text);
    bool takeDelivery(std::string_view text);
    bool takeAnswer(std::string_view text);
    void takeTrouble(std::string_view text);
    void matchAnswer(const std::string& appId);
    void endReplaced();
    void endAnswered();
    void noteDelivered();
    void endHandled();
    void endDelivered(std::list<PushTrace>::iterator push);
    std::list<PushTrace>::iterator findDelivered(const std::string& appId, const std::string& id);

    std::optional<double> m_now;
    std::optional<PushTrace> m_receiving;  // the main thread's
    std::deque<PushTrace> m_queue;         // received, not taken yet
    std::optional<PushTrace> m_handled;    // the handler thread's
    std::list<PushTrace> m_delivered;      // wait for an answer, oldest first
    std::optional<Answer> m_answering;     // what the main thread handles
    bool m_isWriting = false;              // the handler writes m_handled to its application
    GoneClients m_goneClients;
    int m_handledType = 0;  // of the message that the handler thread took last
};

// In words, of a push that was answered.
std::string answerOf(const PushTrace& push);

// What to say behind "delivered" of a push without an answer: to nobody, or that its id is shared;
// empty where there is nothing to say.
const char* noteOfDelivery(const PushTrace& push);
