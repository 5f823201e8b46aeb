// What an application can ask of the agent.

#pragma once

#include <string>

namespace quilclient {

enum class Verb {
    CreateSession,         // pushes of the application then go to the connection that asked
    CreateChannel,         // argument: the URL of the push server
    DestroyChannel,        // no argument
    RegisterToLaunch,      // argument: the launch string
    UnregisterFromLaunch,  // no argument
    AcceptPush,            // argument: the push id
    RejectPush             // argument: the push id
};

struct Request {
    Verb verb = Verb::CreateSession;
    std::string appId;
    std::string argument;
};

}  // namespace quilclient
