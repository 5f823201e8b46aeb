// quilctl rules: what is wrong with a rules file, and which of its lines decides.

#pragma once

#include <string>

#include "tools/common/exit_status.hpp"

// Names every bad line, and warns of what may be meant otherwise: names that this system does not
// know, a '[' without its ']', a file without a rule. `file` is a path as typed; "" stands for the
// file that the agent's configuration names.
ExitStatus checkRules(const std::string& file, bool json);

// Says whether the user, a name or a number, may act for the application, and by which line.
ExitStatus explainRules(const std::string& user, const std::string& appId, const std::string& file,
                        bool json);
