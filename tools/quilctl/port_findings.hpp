// What is wrong with the ports of the saved sessions. Pure: facts in, words out.

#pragma once

#include "tools/quilctl/finding.hpp"
#include "tools/quilctl/status_facts.hpp"

// Appends to `findings`.
void judgePorts(const StatusFacts& facts, Findings& findings);
