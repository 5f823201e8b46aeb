// The SIM that the saved sessions were made with. What tells a changed SIM, and nothing else: the
// data manager learns it with the saved sessions, the session manager asks about it.

#pragma once

#include <string>

// Main thread only, at start-up.
void setSavedImsi(const std::string& imsi);

// Whether the SIM is the one of the saved sessions; also when either of the two is not known.
bool isSameSim();
