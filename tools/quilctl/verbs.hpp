// The verbs of quilctl that make one request.

#pragma once

#include "quilclient/request.hpp"
#include "tools/common/exit_status.hpp"

// Makes the request, shows its outcome and gives the exit status. `name` is the verb as typed.
ExitStatus makeRequest(const char* name, const quilclient::Request& request, double timeoutSeconds,
                       bool json);
