// quilctl status.

#pragma once

#include "tools/common/exit_status.hpp"

// Shows what there is: object service, agent, identity, configuration, sessions. kNotThere when the
// object service or the agent is not there.
ExitStatus showStatus(bool json);

// Shows what is wrong and what to do about it. kRefused when something keeps pushes away; warnings
// alone are kDone.
ExitStatus checkStatus(bool json);
