// The verbs of quilctl that make one request.

#pragma once

#include "quilclient/request.hpp"
#include "tools/common/exit_status.hpp"

// Makes the request, shows its outcome and gives the exit status. `name` is the verb as typed.
ExitStatus makeRequest(const char* name, const quilclient::Request& request, double timeoutSeconds,
                       bool json);

// quilctl query-channel: tells how the application's channel stands. kDone when it does, kRefused
// when there is none or nobody listens on its port.
ExitStatus queryChannel(const std::string& appId, double timeoutSeconds, bool json);
