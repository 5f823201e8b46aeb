// Every answer is first made as a healthy server would make it, then changed as the options say.
// Only an answer that came out different counts against --times, so that "--rc 10001 --times 1" is
// spent by the answer that carries the code and not by the step before it.

#include "pushsim/answers.hpp"

#include <random>
#include <utility>

namespace {

std::string makeToken() {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::random_device random;
    std::string token;
    for (int i = 0; i < 16; ++i) {
        token += kDigits[random() % kDigits.size()];
    }
    return token;
}

std::string fill(std::string body, std::size_t bytes) {
    constexpr std::string_view kSeparator = "&fill=";
    if (body.size() + kSeparator.size() < bytes) {
        body += kSeparator;
    }
    if (body.size() < bytes) {
        body.append(bytes - body.size(), 'x');
    }
    return body;
}

}  // namespace

Answers::Answers(AnswerOptions options) : m_options(std::move(options)) {}

Answer Answers::decide(const RegistrationRequest& request, int step) {
    const Answer plain = healthy(request, step);
    Answer told = asTold(request, step, plain);
    if (told == plain) {
        return plain;
    }
    const std::lock_guard lock(m_mutex);
    if (m_options.times && m_misbehaved >= *m_options.times) {
        return plain;
    }
    ++m_misbehaved;
    return told;
}

Answer Answers::healthy(const RegistrationRequest& request, int step) const {
    Answer answer;
    if (!isLast(step)) {
        answer.body = "param=" + makeToken();
        return answer;
    }
    answer.body = "rc=200";
    answer.portHeader = request.isRegistration ? PortHeader::Assigned : PortHeader::None;
    return answer;
}

Answer Answers::asTold(const RegistrationRequest& request, int step, Answer answer) const {
    const auto& code = request.isRegistration ? m_options.returnCode : m_options.deregisterCode;
    if (isLast(step) && code) {
        answer.body = "rc=" + std::to_string(*code);
    }
    const auto& body = step == 1 ? m_options.firstBody : m_options.secondBody;
    if (body) {
        answer.body = *body;
    }
    if (answer.portHeader == PortHeader::Assigned && m_options.noPortHeader) {
        answer.portHeader = PortHeader::None;
    } else if (answer.portHeader == PortHeader::Assigned && m_options.portText) {
        answer.portHeader = PortHeader::Text;
        answer.portText = *m_options.portText;
    }
    if (m_options.onlyStep != 0 && m_options.onlyStep != step) {
        return answer;
    }
    answer.status = m_options.status.value_or(answer.status);
    answer.delay = m_options.delay;
    answer.wire = m_options.wire;
    answer.body = fill(std::move(answer.body), m_options.bodyBytes);
    return answer;
}
