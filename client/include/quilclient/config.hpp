// What a PushClient has to know of its application: who it is, how patient, and what to call when
// something happens.

#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "quilclient/push.hpp"
#include "quilclient/result.hpp"

namespace quilclient {

struct Config {
    std::string appId;   // provider application id: how the agent and the push server know you
    std::string ppgUrl;  // where the push server is, "http://host:port"; taken as it stands

    // The longest that one request may go unanswered. What an application asks for waits behind its
    // own registration, which takes two HTTP requests of up to a minute each, and may have to wait
    // for its turn when many applications register.
    std::chrono::milliseconds requestTimeout{150000};
    // How long no push may have come since the session was created before a channel that listens
    // for another push server is replaced, or one of which the agent cannot tell (it is from before
    // there was the question): pushes may wait on its port, which the new one closes. A channel
    // that stands for this push server is kept, and where none listens one is asked for at once.
    std::chrono::milliseconds quietTime{1000};
    // Pause between attempts to reach an agent that is not there; doubles from first to longest.
    std::chrono::milliseconds firstReconnect{100};
    std::chrono::milliseconds longestReconnect{5000};
    // Pause before a channel that was not created is asked for again; doubles likewise. It is the
    // push server that has to bear these.
    std::chrono::milliseconds firstChannelRetry{1000};
    std::chrono::milliseconds longestChannelRetry{300000};

    // How to open the connection, for applications that may not open files themselves: gives a
    // non-blocking descriptor, which the client then owns, or -1 with errno. On it each write is
    // one message, and reads give whole messages. Empty: opens /pps/services/push/ipc below
    // QUIL_ROOT.
    std::function<int()> open;
};

// What the application is told. Any of these may be left empty. A handler may call every method of
// its client, but must not destroy it.
struct Handlers {
    // A push arrived. Left empty, pushes are rejected; so is a push whose handler throws.
    std::function<Answer(const Push&)> onPush;

    // The channel stands (ok, with the token that the agent gave): it was created, created anew, or
    // still there on a new connection. Or it was not created (the reason; the client tries again by
    // itself unless stop() is called). A completion without a token is such a failure: kEmptyToken.
    std::function<void(const Result&, const std::string& token)> onChannel;

    // The agent answered on a new connection (ok), or the connection was lost or refused (the
    // reason). Not repeated while the reason stays the same; the client goes on trying by itself.
    std::function<void(const Result&)> onConnection;

    // The device has another SIM than the one that channels were created with, so the agent tore
    // them down. The agent may tell every client so, whichever application is concerned. If this
    // client's channel stood, it is created anew.
    std::function<void()> onSimChange;

    // How setLaunchString() or clearLaunchString() ended.
    std::function<void(const Result&)> onLaunch;

    // How destroyChannel() ended.
    std::function<void(const Result&)> onChannelDestroyed;

    // Something came that cannot be right, such as an answer that nobody asked for; for a log.
    std::function<void(const std::string&)> onNotice;
};

}  // namespace quilclient
