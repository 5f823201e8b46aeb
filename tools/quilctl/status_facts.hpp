// What can be seen of a running system from outside, from /proc, from objects and from files. Only
// a check asks the agent something and writes an object; nothing that is there is changed by it.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "platform/rules/rules_file.hpp"
#include "tools/quilctl/agent_probe.hpp"
#include "tools/quilctl/configuration.hpp"
#include "tools/quilctl/port_facts.hpp"
#include "tools/quilctl/proc.hpp"
#include "tools/quilctl/service_facts.hpp"
#include "tools/quilctl/store_check.hpp"

// What the object service holds, and what is beside it.
struct StatusFacts : ServiceFacts {
    std::vector<AgentProcess> agents;  // those of this QUIL_ROOT, as far as that can be seen
    std::size_t strangers = 0;         // further ones that may be, but do not serve its object
    pid_t stoppedService = 0;          // a ppsd of this QUIL_ROOT that a signal stopped
    Configuration configuration;
    RulesFile rules;  // of the key "rules"; empty and sound without it, or where only root may read
    bool areRulesClosed = false;  // to this user
    PortFacts ports;
    std::vector<std::string> newerFiles;  // that changed after the agent had read them
    bool isProxyLocal = false;            // proxy-host is a loopback address
    bool isProxyListening = false;        // and something listens on its port
    bool isListenAddressOurs = true;
    // Of a check alone.
    StoreFacts store;
    ProbeResult probe;
};

// An object of more bytes than this is cut when the agent starts.
constexpr std::size_t kLoadableBytes = 15359;

// The agent watches no port whose listening socket has a higher descriptor.
constexpr int kHighestWatchedDescriptor = 255;

// `limit` is what the object service has to answer, and of a check also what it has to write and
// what the agent has to answer.
StatusFacts collectFacts(bool isCheck, std::chrono::milliseconds limit);
