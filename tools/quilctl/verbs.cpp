#include "tools/quilctl/verbs.hpp"

#include <cmath>
#include <cstdio>

#include "tools/common/terminal.hpp"
#include "tools/quilctl/output.hpp"

using quilclient::Verb;

namespace {

std::string success(const quilclient::Request& request, const std::string& token) {
    switch (request.verb) {
        case Verb::CreateSession:
            return "session created; it belongs to this command's connection, which ends now. To "
                   "receive pushes use: quilctl listen";
        case Verb::CreateChannel:
            return "channel created, token " + token;
        case Verb::DestroyChannel:
            return "channel destroyed";
        case Verb::RegisterToLaunch:
            return "launch string set";
        case Verb::UnregisterFromLaunch:
            return "launch string cleared";
        case Verb::AcceptPush:
        case Verb::RejectPush:
            return "handed to the agent, which confirms no answers: whether it knew the push "
                   "stands in its log";
    }
    return "";
}

}  // namespace

ExitStatus makeRequest(const char* name, const quilclient::Request& request, double timeoutSeconds,
                       bool json) {
    const std::chrono::milliseconds timeout(
        static_cast<std::int64_t>(std::ceil(timeoutSeconds * 1000)));
    const quilclient::Reply reply = quilclient::sendRequest(request, timeout);
    if (json) {
        nlohmann::ordered_json object = {{"request", name}, {"app", request.appId}};
        addResult(object, reply.result);
        if (!reply.token.empty()) {
            object["token"] = reply.token;
        }
        printJson(object);
    }
    if (!reply.result.ok()) {
        printFailure(std::string(name) + " " + request.appId, reply.result);
    } else if (!json) {
        const std::string words = request.appId + ": " + success(request, reply.token);
        std::printf("%s\n", wrapped(visible(words), 0, 0).c_str());
    }
    return exitStatusOf(reply.result);
}
