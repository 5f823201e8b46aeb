// What is wrong with object service and agent as they run: whether they are there, answer, and can
// be reached by applications. Pure: facts in, words out.

#pragma once

#include "tools/quilctl/finding.hpp"
#include "tools/quilctl/status_facts.hpp"

// Appends to `findings`.
void judgeRunning(const StatusFacts& facts, Findings& findings);
