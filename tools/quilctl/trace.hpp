// quilctl trace: where the time of each push and each channel went.

#pragma once

#include <string>

#include "tools/common/exit_status.hpp"

// Reads the agent's log from `file` ("-": standard input) and shows one line per push and per
// channel as each is over. A line without a time in front has the time at which it arrived, when it
// comes from standard input; from a file it has none, and only the order is shown. Stages that took
// longer than `slowSeconds` are marked. kNotThere when the file cannot be read, kRefused when it
// holds no line of the agent's.
ExitStatus traceLog(const std::string& file, double slowSeconds, bool json);
