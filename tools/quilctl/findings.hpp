// What is wrong with a system, in words, and what to do about it. Pure: facts in, words out.

#pragma once

#include "tools/quilctl/finding.hpp"
#include "tools/quilctl/status_facts.hpp"

// The gravest first. Where the object service is missing, nothing that lies in it is judged.
Findings findProblems(const StatusFacts& facts);
