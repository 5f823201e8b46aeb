// The configuration in force, read from /etc/quilagent.conf as the agent reads it.

#pragma once

#include "tools/quilctl/status_facts.hpp"

Configuration readConfiguration();
