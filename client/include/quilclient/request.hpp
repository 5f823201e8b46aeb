// One request to the agent and its answer, for tools and scripts that keep no session alive. For an
// application that wants pushes, see push_client.hpp.

#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "quilclient/api.hpp"
#include "quilclient/channel.hpp"
#include "quilclient/result.hpp"
#include "quilclient/verb.hpp"

namespace quilclient {

struct Reply {
    Result result;
    std::string token;     // of a channel that was created
    ChannelState channel;  // of QueryChannel
};

// Opens a connection, sends the request, waits for its answer and closes the connection. AcceptPush
// and RejectPush are never answered: for them ok means that the agent's queue took the request.
// `open` as in Config. No exception leaves.
QUILCLIENT_API Reply sendRequest(const Request& request, std::chrono::milliseconds timeout,
                                 const std::function<int()>& open = {}) noexcept;

}  // namespace quilclient
