// quilctl status.

#pragma once

#include "tools/common/exit_status.hpp"

// Both give the object service `timeoutSeconds` to answer, and a check each of the object service's
// disk and the agent as much again. A child process that hangs in the object service is left
// behind.

// Shows what there is: object service, agent, identity, configuration, sessions. kNotThere when the
// object service or the agent is not there, kTimeout when the object service does not answer.
ExitStatus showStatus(bool json, double timeoutSeconds);

// Shows what is wrong and what to do about it, and what could not be looked at. kRefused when
// something keeps pushes away; warnings alone are kDone.
ExitStatus checkStatus(bool json, double timeoutSeconds);
