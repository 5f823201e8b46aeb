// Whether the agent answers, tried out.

#pragma once

#include <chrono>
#include <string>

struct ProbeResult {
    enum Outcome {
        NotTried,
        Answered,
        Silent,    // no answer within the limit
        HungUp,    // the connection ended before the answer
        Refused,   // the object service did not take the request: see `problem`
        Abandoned  // the object service hung
    } outcome = NotTried;
    std::string problem;  // in words
};

// Makes a request that changes nothing, on a connection of its own, and waits for the answer. The
// push object has to be a served one: an ordinary one would keep the request.
ProbeResult probeAgent(std::chrono::milliseconds limit);
