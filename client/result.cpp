#include "quilclient/result.hpp"

#include <algorithm>

namespace quilclient {

namespace {

constexpr std::string_view kLibrary = "client library";
constexpr std::string_view kAgent = "agent";
constexpr std::string_view kServer = "push server";

constexpr CodeInfo kUnknownLocal = {0, kLibrary, "a code that this version does not know",
                                    "update the client library"};

}  // namespace

const std::vector<CodeInfo>& knownCodes() {
    static const std::vector<CodeInfo> codes = {
        {kObjectInTheWay, kLibrary,
         "an ordinary object lies where the agent serves the push object: nobody reads it",
         "remove it: ppsctl rm services/push/ipc; then start quilagent"},
        {kQueueFull, kLibrary, "too many requests wait for an agent that does not read them",
         "look whether the agent hangs, and send fewer requests at once"},
        {kNotConnected, kLibrary, "there is no connection to the agent right now",
         "wait until the connection is reported again; a push from before is lost to its sender"},
        {kSystemError, kLibrary, "the operating system refused", "see the reason in the message"},
        {kHandlerThrew, kLibrary, "a handler of the application threw an exception",
         "catch it in the handler"},
        {kNoPermission, kLibrary, "this user may not open the push object",
         "check owner and mode of /pps/services/push and of ipc in it, and whether the object "
         "service was mounted by another user without allow_other"},
        {kBadArgument, kLibrary, "the request was refused before it was sent",
         "correct the argument that the message names"},
        {kEmptyToken, kLibrary, "the channel was not created: its completion came without a token",
         "quilctl trace LOG shows the reason, out of the agent's log: the push server did not "
         "answer "
         "or refused, gave no usable port, or the device has no PIN"},
        {kConnectionLost, kLibrary, "the agent or the object service went away",
         "start it again; a PushClient then goes on by itself"},
        {kTimedOut, kLibrary, "the agent did not answer in time",
         "look whether a push server keeps the agent waiting: set http-timeout in quilagent.conf"},
        {kNoAgent, kLibrary, "the object service is up, but no agent serves the push object",
         "start quilagent"},
        {kNoObjectService, kLibrary, "the object service is not there",
         "start ppsd, then quilagent"},
        {kOk, kAgent, "success", "nothing to do"},
        {200, kServer,
         "the push server said 200 in a one-step answer, which the agent counts as no success: "
         "the channel stays as it was",
         "let the push server answer the first request with \"param=\""},
        {500, kAgent,
         "no such session: it could not be added, or the application has no session (any more), or "
         "your user may not act for the application",
         "create the session first; when that is what failed, see quilctl rules explain"},
        {10002, kAgent, "the request has no providerApplicationId (arrives as 500)",
         "put providerApplicationId into dat"},
        {10003, kServer,
         "the push server knows this application already: success for a registration, but "
         "passed on as an error by a deregistration",
         "nothing for a registration; else ask who runs the push server"},
        {10004, kAgent, "there is no channel to destroy: the session is not registered any more",
         "nothing to do, or create the channel first"},
        {10100, kAgent,
         "the application has no session, or your user may not act for the application",
         "create the session first"},
        {10101, kAgent, "the launch string is empty",
         "give a launch string, or unregister the present one"},
        {10102, kAgent, "the URL of the push server is empty", "put ppgUrl into dat"},
        {10103, kAgent, "the push server did not answer, or not with HTTP status 200",
         "check the URL, the push server, and proxy-host and proxy-port in quilagent.conf"},
        {10104, kAgent, "the agent does not know this request (is never sent)",
         "check the spelling of msg"},
        {10106, kAgent,
         "there is no channel to destroy: none was created in this session, or it "
         "is still being created",
         "create the channel first; wait for onCreateChannelComplete before destroying it"},
        {10107, kAgent, "the push server accepted, but gave no usable port",
         "the push server has to send the header vex-device-ovra-port with a port above 0"},
        {10108, kAgent, "the push server's second answer holds no \"rc=\", or did not come",
         "check the second request at the push server"},
        {10109, kAgent,
         "a push could not be turned into base64: empty or too long, so it was closed",
         "push at least the empty line behind the headers, and at most 11517 bytes of data"},
        {10110, kAgent, "the push server's first answer holds neither \"param=\" nor \"rc=\"",
         "check that the URL is that of a push server"},
    };
    return codes;
}

CodeInfo explain(int code) noexcept {
    try {
        const std::vector<CodeInfo>& codes = knownCodes();
        const auto found = std::find_if(codes.begin(), codes.end(),
                                        [code](const CodeInfo& info) { return info.code == code; });
        if (found != codes.end()) {
            return *found;
        }
    } catch (...) {
        // No memory for the table: the general answers below need none.
    }
    if (code < 0) {
        CodeInfo info = kUnknownLocal;
        info.code = code;
        return info;
    }
    return {code, kServer, "the push server refused; this is its own return code",
            "ask who runs the push server what it means"};
}

Result resultOf(int code) {
    return {code, code == kOk ? std::string() : std::string(explain(code).meaning)};
}

}  // namespace quilclient
