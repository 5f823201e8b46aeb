// quilctl clients.

#pragma once

#include <string>

#include "tools/common/exit_status.hpp"

// Shows who has the agent's object open: process, program and user, as the object service knows
// them. For which applications each one is, the agent's log tells where it is detailed enough
// (`log`: a file, "-" for standard input, "" for none). kRefused to whom the object service does
// not tell, kTimeout when it does not answer for `timeoutSeconds`.
ExitStatus showClients(const std::string& log, bool json, double timeoutSeconds);
