#include "pushsim/registration_service.hpp"

#include <iostream>
#include <optional>
#include <stdexcept>

namespace {

constexpr int kRegistered = 200;
constexpr int kAlreadyRegistered = 10003;

Reply failure(int status, const std::string& text) {
    Reply reply;
    reply.answer.status = status;
    reply.answer.body = text;
    return reply;
}

bool tellsSuccess(const RegistrationRequest& request, const Answer& answer) {
    const auto code = returnCode(answer.body);
    return code == kRegistered || (request.isRegistration && code == kAlreadyRegistered);
}

// A port that somebody chose is a registration only when a device can read it as a port.
std::optional<std::uint16_t> readPort(const std::string& text) {
    PortRange range;
    return parsePortRange(text, &range) && range.from == range.to ? std::optional(range.from)
                                                                  : std::nullopt;
}

}  // namespace

Reply RegistrationService::handle(const std::string& target) {
    LogEntry entry;
    entry.target = target;
    std::string firstTarget;
    const bool known = m_exchanges.take(target, &firstTarget);
    const auto request = parseRegistrationRequest(known ? firstTarget : target);
    Reply reply;
    if (request) {
        entry.kind = request->isRegistration ? "register" : "deregister";
        entry.step = known || request->hasParameter ? 2 : 1;
        entry.application = request->application;
        entry.unknownParameter = entry.step == 2 && !known;
        reply = answerStep(*request, target, entry.step);
    } else {
        entry.kind = "unknown";
        reply = failure(404, "neither a registration nor a deregistration");
    }
    entry.answer = reply.answer;
    entry.portText = reply.portText;
    m_log->request(entry);
    return reply;
}

Reply RegistrationService::answerStep(const RegistrationRequest& request, const std::string& target,
                                      int step) {
    Reply reply;
    reply.answer = m_answers->decide(request, step);
    const bool healthyHttp = reply.answer.wire == Wire::Reply && reply.answer.status == 200;
    if (!m_oneStep && step == 1) {
        if (healthyHttp) {
            m_exchanges.remember(target, reply.answer.body);
        }
        return reply;
    }
    const bool success = tellsSuccess(request, reply.answer);
    if (reply.answer.portHeader == PortHeader::Text) {
        reply.portText = reply.answer.portText;
    } else if (!success || !healthyHttp) {
        reply.answer.portHeader = PortHeader::None;
    }
    if (success && healthyHttp) {
        try {
            settle(request, &reply);
        } catch (const std::runtime_error& error) {
            std::cerr << "pushsim: " << error.what() << std::endl;
            return failure(500, error.what());
        }
    }
    return reply;
}

void RegistrationService::settle(const RegistrationRequest& request, Reply* reply) {
    if (request.isRegistration) {
        settlePort(request, reply);
    } else {
        m_registrations->remove(request.application);
    }
}

void RegistrationService::settlePort(const RegistrationRequest& request, Reply* reply) {
    if (reply->answer.portHeader == PortHeader::Text) {
        const auto chosen = readPort(reply->portText);
        if (chosen) {
            m_registrations->put(request.application, *chosen);
        }
        return;
    }
    if (reply->answer.portHeader == PortHeader::Assigned) {
        const auto port = m_registrations->add(request.application);
        if (port) {
            reply->portText = std::to_string(*port);
        } else {
            *reply = failure(503, "no free port is left");
        }
    }
}
