// What lies in the object service, as a person sees it who looks at the objects. A service that
// hangs holds up whoever looks, so a child process does, which can be left behind.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/connected_clients.hpp"
#include "tools/common/object_service.hpp"
#include "tools/quilctl/proc.hpp"

// One value of the device's identity.
struct IdentityValue {
    std::string name;    // "PIN", "OS version", "model" or "IMSI"
    std::string object;  // where it is read from
    std::string attribute;
    std::string value;    // empty when missing
    std::string problem;  // why it is missing, in words; empty when it is there
    bool isReadableByAgent = true;
    bool isClosedToUs = false;  // this user may not read it, which says nothing about the agent
};

struct SavedSession {
    std::string appId;
    std::string ppgUrl;
    std::string launchString;
    int port = 0;
    // What /proc tells of its port; see matchPorts().
    bool isListening = false;
    uid_t listener = 0;                  // user of the listening socket
    std::size_t heldConnections = 0;     // pushes that are being read or wait for their answer
    std::size_t waitingConnections = 0;  // of these, what was there kWaitingTime ago already
    std::size_t goneSenders = 0;         // of these, those whose sender hung up
    std::size_t unaccepted = 0;          // of the others, what the agent has not even taken
    bool isForeign = false;              // the socket that listens is none of the agent's
    std::string holder;                  // then: whose it is, as far as that can be seen
};

struct SavedObject {
    bool exists = false;
    bool isReadable = false;
    bool isSound = false;  // it parses, or is empty
    std::size_t bytes = 0;
    std::string imsi;
    uid_t owner = 0;
    bool isWritableByAgent = true;
    std::vector<SavedSession> sessions;
};

struct ServiceFacts {
    ServiceState service = ServiceState::Absent;
    bool isObjectServed = false;             // the push object is there, and a served one
    bool isObjectOrdinary = false;           // an ordinary object is in its place
    std::string objectProblem;               // why this user cannot use it, in words
    unsigned objectMode = 0;                 // permission bits of the push object
    uid_t objectOwner = 0;                   // of it
    std::vector<std::string> closedFolders;  // on the way to it, not open to everybody
    std::vector<IdentityValue> identity;
    SavedObject saved;
    std::vector<ConnectedClient> clients;  // applications that have the push object open
    bool mayListClients = false;           // else there are none above
};

// Looks for at most `limit`; then only the state is filled in, as Silent. With `isPatient` an agent
// has a moment to serve its object anew before it is said not to.
ServiceFacts readServiceFacts(const std::vector<AgentProcess>& agents, bool isPatient,
                              std::chrono::milliseconds limit);
