// Reading a rules file, for all who need one.

#pragma once

#include <string>

#include "platform/rules/rules.hpp"

struct RulesFile {
    std::string problem;  // why it cannot be read, in words; "" when it was
    Rules rules;

    // Whether its rules may be followed: it was read, and no line is bad.
    bool isSound() const { return problem.empty() && rules.errors().empty(); }
};

// Reads a file of at most 64 KiB. `path` is opened as it stands. Never waits: what is no regular
// file is refused.
RulesFile readRulesFile(const std::string& path);

// The same for the path that a configuration names: absolute, and below the platform's root. Any
// other would be another file for everyone who reads it.
RulesFile readConfiguredRules(const std::string& absolutePath);
