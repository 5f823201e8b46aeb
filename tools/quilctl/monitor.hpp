// quilctl monitor: what happens to pushes and requests, as it happens.

#pragma once

#include <string>

#include "tools/common/exit_status.hpp"

struct MonitorOptions {
    std::string log;    // file, "-" for standard input, "" for the journal
    std::string appId;  // only this one's, or "" for all
    bool fromStart = false;
    bool json = false;
};

// One line for each event. Goes on until it is interrupted, until nobody reads its output or, of
// standard input, until that ends: kDone. kNotThere when the log cannot be read, kRefused when
// standard input held no line of the agent's or the output cannot be written.
ExitStatus monitorLog(const MonitorOptions& options);
