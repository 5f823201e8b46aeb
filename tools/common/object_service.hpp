// The object service as the tools see it.

#pragma once

#include <string>

enum class ServiceState {
    Mounted,  // the object service is mounted on /pps
    Dead,     // something was mounted there, but its process is gone
    Silent,   // it takes longer to answer than the asker waits; objectServiceState() itself waits
    Absent    // /pps is missing or an ordinary folder
};

ServiceState objectServiceState();

// One sentence about a state that is not Mounted, and what to do about it.
std::string describeState(ServiceState state);
std::string nextStepFor(ServiceState state);
