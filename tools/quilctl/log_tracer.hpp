// Follows all that the agent's log tells of: pushes, channels and requests.
//
// The agent's log names no push until it is delivered, but its order tells nearly all: one thread
// receives and queues, the other works off the queue and names the application. So the tracers keep
// the queue that the agent has, and a push is found again by its application and its place in it,
// later by its id. Works at the default verbosity; with -v the log also tells whether a sender
// waits.

#pragma once

#include <optional>
#include <string_view>

#include "tools/quilctl/channel_tracer.hpp"
#include "tools/quilctl/push_tracer.hpp"
#include "tools/quilctl/request_tracer.hpp"

class LogTracer {
  public:
    // Whoever wants to hear of them sets their listeners.
    PushTracer pushes;
    ChannelTracer channels;
    RequestTracer requests;

    // The next line of the log's text (LogLine::text), with its time where there is one.
    void take(std::string_view text, std::optional<double> time);

    // The end of the log: what is still under way is told as it stands.
    void finish();
};
