#include "pushsim/registration_request.hpp"

namespace {

constexpr std::string_view kRegister = "/mss/PD_subReg?serviceid=";
constexpr std::string_view kDeregister = "/mss/PD_subDereg?serviceid=";

// Cuts `text` in front of `name` and gives what stood behind the name; empty, and nothing is cut,
// when the name is missing.
std::string_view cutFrom(std::string_view* text, std::string_view name) {
    const std::size_t at = text->find(name);
    if (at == std::string_view::npos) {
        return {};
    }
    const std::string_view behind = text->substr(at + name.size());
    *text = text->substr(0, at);
    return behind;
}

}  // namespace

std::optional<RegistrationRequest> parseRegistrationRequest(std::string_view target) {
    RegistrationRequest request;
    std::size_t at = target.find(kRegister);
    request.isRegistration = at != std::string_view::npos;
    if (!request.isRegistration) {
        at = target.find(kDeregister);
        if (at == std::string_view::npos) {
            return std::nullopt;
        }
    }
    std::string_view rest =
        target.substr(at + (request.isRegistration ? kRegister : kDeregister).size());
    const std::size_t length = rest.size();
    cutFrom(&rest, "&param=");
    request.hasParameter = rest.size() != length;
    request.model = cutFrom(&rest, "&model=");
    request.osVersion = cutFrom(&rest, "&osversion=");
    request.application = rest;
    return request;
}

std::optional<int> returnCode(std::string_view body) {
    constexpr std::string_view kName = "rc=";
    constexpr std::size_t kMostDigits = 9;
    const std::size_t at = body.find(kName);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view digits = body.substr(at + kName.size(), kMostDigits);
    int code = 0;
    for (const char c : digits.substr(0, digits.find_first_not_of("0123456789"))) {
        code = code * 10 + (c - '0');
    }
    return code;
}
