// quilctl listen: plays an application, shows its pushes and answers them.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/common/exit_status.hpp"

struct ListenOptions {
    enum class Mode { Accept, Reject, Ask, Command } mode = Mode::Accept;
    std::string appId;
    std::string ppgUrl;
    std::string command;        // of Mode::Command
    std::string directory;      // empty: nothing is saved
    bool acceptsShort = false;  // of Mode::Accept: also a push with less data than announced
    bool json = false;
    std::optional<std::uint64_t> count;    // end after so many pushes
    std::optional<double> timeoutSeconds;  // give up after so many seconds
};

// Runs until the count is reached (kDone), the time is over (kTimeout), the agent is not there or
// goes away before the first channel stands (kNotThere), or the first channel is refused
// (kRefused). Later failures are shown, and the client tries again by itself.
ExitStatus listen(const ListenOptions& options);
