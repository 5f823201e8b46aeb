// What a check could not look at, so that nobody takes its silence for health. Pure: facts in,
// words out.

#pragma once

#include <string>
#include <vector>

#include "tools/quilctl/status_facts.hpp"

struct Unchecked {
    std::string name;   // one short name per kind, for scripts
    std::string words;  // what was not looked at
    std::string needs;  // who could: "root", or why nobody can now
};

std::vector<Unchecked> findUnchecked(const StatusFacts& facts);
