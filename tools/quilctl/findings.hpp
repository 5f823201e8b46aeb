// What is wrong with a system, in words, and what to do about it. Pure: facts in, words out.

#pragma once

#include <string>
#include <vector>

#include "tools/quilctl/status_facts.hpp"

struct Finding {
    // A warning leaves pushes arriving today; anything else keeps some or all of them away.
    bool isWarning = false;
    std::string name;  // one short name per kind of finding, for scripts
    std::string words;
    std::string next;
};

// The gravest first. Where the object service is missing, nothing that lies in it is judged.
std::vector<Finding> findProblems(const StatusFacts& facts);
