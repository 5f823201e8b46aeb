#include "tools/quilctl/verbs.hpp"

#include <cstdio>

#include "tools/common/terminal.hpp"
#include "tools/common/time_limit.hpp"
#include "tools/quilctl/channel_words.hpp"
#include "tools/quilctl/output.hpp"

using quilclient::ChannelState;
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
        case Verb::QueryChannel:
            return "";  // queryChannel() shows more than one line
        case Verb::AcceptPush:
        case Verb::RejectPush:
            return "handed to the agent, which confirms no answers: whether it knew the push "
                   "stands in its log";
    }
    return "";
}

// An object service that hangs holds whoever opens something in it.
void limitWait(double timeoutSeconds) {
    constexpr double kMoreSeconds = 1;
    limitTime(timeoutSeconds + kMoreSeconds, "quilctl",
              "the object service does not answer; next: quilctl status --check");
}

}  // namespace

ExitStatus makeRequest(const char* name, const quilclient::Request& request, double timeoutSeconds,
                       bool json) {
    limitWait(timeoutSeconds);
    const quilclient::Reply reply =
        quilclient::sendRequest(request, asMilliseconds(timeoutSeconds));
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

ExitStatus queryChannel(const std::string& appId, double timeoutSeconds, bool json) {
    limitWait(timeoutSeconds);
    const quilclient::Request request{Verb::QueryChannel, appId, ""};
    const quilclient::Reply reply =
        quilclient::sendRequest(request, asMilliseconds(timeoutSeconds));
    const ChannelState& channel = reply.channel;
    if (json) {
        nlohmann::ordered_json object = {{"request", "query-channel"}, {"app", appId}};
        addResult(object, reply.result);
        if (reply.result.ok()) {
            object["registered"] = channel.isRegistered;
            object["listening"] = channel.isListening;
            object["port"] = channel.port;
            object["token"] = channel.token;
            object["ppgUrl"] = channel.ppgUrl;
        }
        printJson(object);
    }
    if (!reply.result.ok()) {
        printFailure("query-channel " + appId, reply.result);
        return exitStatusOf(reply.result);
    }
    if (!json) {
        const std::string words = appId + ": " + describeChannel(channel);
        std::printf("%s\n", wrapped(visible(words), 0, 0).c_str());
    }
    return channel.isRegistered && channel.isListening ? kDone : kRefused;
}
