// How an application's channel stands, as the agent tells it.

#pragma once

#include <string>

namespace quilclient {

struct ChannelState {
    bool isRegistered = false;  // the push server has given the application a channel
    bool isListening = false;   // what is pushed to its port is taken
    int port = 0;               // TCP port number; 0 for none
    std::string token;          // empty unless registered, and on a device without a PIN
    std::string ppgUrl;         // push server of the channel that was asked for last

    // Whether the channel is there, works, and is that of this push server. Then there is no need
    // to ask for another, which would close its port with all pushes that wait there.
    bool standsFor(const std::string& url) const {
        return isRegistered && isListening && ppgUrl == url;
    }
};

}  // namespace quilclient
