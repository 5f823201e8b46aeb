// The verbs of ppsctl: objects for people who do not think in file descriptors.
//
// A path is absolute ("/pps/services/push/ipc") or below /pps ("services/push/ipc"). It is never
// one outside /pps, and holds no options: a '?' or a component ".." is refused as usage.
//
// Each verb shows its failure on standard error, with the next step, and gives the exit status:
// kUsage for a path or attribute that cannot be, kNotThere where service or object are missing,
// kRefused for everything else that the service refused.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/exit_status.hpp"

// The names in a folder, one line each with mode and owner; of an object, its own line.
ExitStatus listObjects(const std::string& path, bool json);

// The object's text as it stands.
ExitStatus showObject(const std::string& path, bool json);

struct WatchOptions {
    std::string path;
    bool json = false;
    std::optional<std::uint64_t> count;    // end after so many texts, the first one included
    std::optional<double> timeoutSeconds;  // give up after so many seconds: kTimeout
};

// The object's text, then each change as it comes. kNotThere when its server or the service ends.
ExitStatus watchObject(const WatchOptions& options);

// Each attribute is "name=value" (a string, escaped as needed), "name:encoding:value" as it stands,
// or "-name", which removes it. All are written at once: all of them take effect, or none.
ExitStatus writeObject(const std::string& path, const std::vector<std::string>& attributes,
                       bool isCreating, bool json);

// Who has a served object open: a line each.
ExitStatus showClients(const std::string& path, bool json);

// Removes objects and empty folders. Goes on after a failure; the first one gives the status.
ExitStatus removeObjects(const std::vector<std::string>& paths, bool json);
