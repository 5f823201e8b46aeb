// One request to the agent and its answer, for tools and scripts that keep no session alive. For an
// application that wants pushes, see push_client.hpp.

#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "quilclient/result.hpp"

namespace quilclient {

enum class Verb {
    CreateSession,     // pushes of the application then go to the connection that asked, also
                       // those that waited: they are lost when it is closed
    CreateChannel,     // argument: the URL of the push server. Closes the port of a channel that
                       // stands, with all pushes that wait there
    DestroyChannel,    // no argument
    RegisterToLaunch,  // argument: the launch string
    UnregisterFromLaunch,  // no argument
    AcceptPush,            // argument: the push id
    RejectPush             // argument: the push id
};

struct Request {
    Verb verb = Verb::CreateSession;
    std::string appId;
    std::string argument;
};

struct Reply {
    Result result;
    std::string token;  // of a channel that was created
};

// Opens a connection, sends the request, waits for its answer and closes the connection. AcceptPush
// and RejectPush are never answered: for them ok means that the agent's queue took the request.
// `open` as in Config. No exception leaves.
Reply sendRequest(const Request& request, std::chrono::milliseconds timeout,
                  const std::function<int()>& open = {}) noexcept;

}  // namespace quilclient
