// An application's channel as it stands: what a session knows of it and "queryChannel" tells.

#pragma once

#include <string>

// Plain values of one moment.
struct QuilChannel {
    bool isRegistered = false;  // the push data server has accepted it, with the SIM that is in
    bool isListening = false;   // pushes that come to the port now are taken
    int port = 0;               // TCP port number, 0 for none and unless registered
    std::string token;          // empty unless registered
    std::string ppgUrl;         // of the channel that was asked for last, empty for none
};
