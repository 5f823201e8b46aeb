// What the push data server answers: the healthy exchange, and how it may be told to misbehave.

#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

#include "pushsim/registration_request.hpp"

enum class Wire {
    Reply,    // an HTTP answer
    Hang,     // nothing, and the connection stays open
    Close,    // nothing, and the connection is closed
    Garbage,  // bytes that are no HTTP
};

// What stands in the port header.
enum class PortHeader {
    None,      // there is no such header
    Assigned,  // the port of the application
    Text,      // whatever was asked for
};

struct Answer {
    Wire wire = Wire::Reply;
    int status = 200;
    std::chrono::milliseconds delay{0};
    std::string body;
    PortHeader portHeader = PortHeader::None;
    std::string portText;  // for PortHeader::Text

    bool operator==(const Answer&) const = default;
};

struct AnswerOptions {
    bool oneStep = false;                   // the first answer ends the exchange
    std::optional<int> returnCode;          // of the answer that ends a registration
    std::optional<int> deregisterCode;      // of the answer that ends a deregistration
    std::optional<std::string> firstBody;   // instead of "param=..." (or "rc=..." in one step)
    std::optional<std::string> secondBody;  // instead of "rc=..."
    std::optional<std::string> portText;    // in the port header instead of the port
    bool noPortHeader = false;
    std::optional<int> status;
    std::chrono::milliseconds delay{0};
    Wire wire = Wire::Reply;
    std::size_t bodyBytes = 0;      // bodies are filled up to so many bytes
    int onlyStep = 0;               // status, delay, wire and bodyBytes: 1, 2, or 0 for both
    std::optional<unsigned> times;  // how many answers may differ from the healthy ones
};

// Safe on any thread.
class Answers {
  public:
    explicit Answers(AnswerOptions options);

    // The answer to one step (1 or 2) of an exchange.
    Answer decide(const RegistrationRequest& request, int step);

  private:
    Answer healthy(const RegistrationRequest& request, int step) const;
    Answer asTold(const RegistrationRequest& request, int step, Answer answer) const;
    bool isLast(int step) const { return m_options.oneStep || step == 2; }

    const AnswerOptions m_options;
    std::mutex m_mutex;
    unsigned m_misbehaved = 0;  // guarded by m_mutex
};
