// What an application can ask of the agent.

#pragma once

#include <string>

namespace quilclient {

enum class Verb {
    CreateSession,     // pushes of the application then go to the connection that asked, also
                       // those that waited: they are lost when it is closed
    CreateChannel,     // argument: the URL of the push server. Closes the port of a channel that
                       // stands, with all pushes that wait there
    DestroyChannel,    // no argument
    QueryChannel,      // no argument. Changes nothing; an agent from before there was this request
                       // does not answer it
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

}  // namespace quilclient
