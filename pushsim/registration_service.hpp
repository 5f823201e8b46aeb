// The push data server without its HTTP: takes the target of a request, gives what to answer, keeps
// the registrations and writes the log. An application is registered by the answer that tells its
// device so, and only then.

#pragma once

#include <string>

#include "pushsim/answers.hpp"
#include "pushsim/exchanges.hpp"
#include "pushsim/registrations.hpp"
#include "pushsim/request_log.hpp"

struct Reply {
    Answer answer;
    std::string portText;  // value of the port header, unless the answer has none
};

// Safe on any thread. Borrows all three, which must live longer.
class RegistrationService {
  public:
    RegistrationService(bool oneStep, Answers* answers, Registrations* registrations,
                        RequestLog* log)
        : m_oneStep(oneStep), m_answers(answers), m_registrations(registrations), m_log(log) {}

    // Also for requests that are no registrations: these get 404. The log line is written.
    Reply handle(const std::string& target);

  private:
    Reply answerStep(const RegistrationRequest& request, const std::string& target, int step);
    void settle(const RegistrationRequest& request, Reply* reply);
    void settlePort(const RegistrationRequest& request, Reply* reply);

    const bool m_oneStep;
    Answers* const m_answers;
    Registrations* const m_registrations;
    RequestLog* const m_log;
    Exchanges m_exchanges;
};
