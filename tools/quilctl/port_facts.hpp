// Who listens on the ports of the saved sessions, and who waits there.

#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/quilctl/proc.hpp"
#include "tools/quilctl/service_facts.hpp"

// A port on which an agent listens.
struct AgentPort {
    int port = 0;
    int descriptor = -1;  // of the listening socket, in the agent
    std::string appId;    // empty when no saved session has the port
};

struct PortFacts {
    std::vector<AgentPort> agentPorts;   // those that can be seen
    bool areAllDescriptorsSeen = false;  // of all agents; else only root can
};

// Fills in what the sockets of this machine tell about each session.
PortFacts matchPorts(const std::vector<AgentProcess>& agents, std::vector<SavedSession>* sessions);

// A push that is still there after so long waits for somebody.
constexpr std::chrono::milliseconds kWaitingTime{2000};

// Sees, kWaitingTime later, which of the pushes that are there wait: see SavedSession. Takes no
// time where there are none.
void findWaiting(std::vector<SavedSession>* sessions);
