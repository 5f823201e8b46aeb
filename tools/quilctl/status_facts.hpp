// What can be seen of a running system from outside: nothing here asks the agent or changes
// anything; all is read from /proc, from objects and from files.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "platform/rules/rules_file.hpp"
#include "tools/common/connected_clients.hpp"
#include "tools/common/object_service.hpp"
#include "tools/quilctl/configuration.hpp"
#include "tools/quilctl/proc.hpp"

// One value of the device's identity.
struct IdentityValue {
    std::string name;    // "PIN", "OS version", "model" or "IMSI"
    std::string object;  // where it is read from
    std::string attribute;
    std::string value;    // empty when missing
    std::string problem;  // why it is missing, in words; empty when it is there
    bool isReadableByAgent = true;
};

struct SavedSession {
    std::string appId;
    std::string ppgUrl;
    std::string launchString;
    int port = 0;
    bool isListening = false;
    uid_t listener = 0;               // user of the listening socket
    std::size_t heldConnections = 0;  // pushes that are being read or wait for their answer
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

// A port on which an agent listens.
struct AgentPort {
    int port = 0;
    int descriptor = -1;  // of the listening socket, in the agent
    std::string appId;    // empty when no saved session has the port
};

struct StatusFacts {
    ServiceState service = ServiceState::Absent;
    std::vector<AgentProcess> agents;  // those of this QUIL_ROOT, as far as that can be seen
    bool isObjectServed = false;       // the push object is there, and may be a served one
    bool isObjectOrdinary = false;     // an ordinary object with attributes is in its place
    std::string objectProblem;         // why this user cannot use it, in words
    Configuration configuration;
    RulesFile rules;  // of the key "rules"; empty and sound without it, or where only root may read
    std::vector<IdentityValue> identity;
    SavedObject saved;
    std::vector<ConnectedClient> clients;  // applications that have the push object open
    bool mayListClients = false;           // else there are none above
    std::vector<AgentPort> agentPorts;     // none when only root can see them
    bool isProxyLocal = false;             // proxy-host is a loopback address
    bool isProxyListening = false;         // and something listens on its port
    bool isListenAddressOurs = true;
};

// An object of more bytes than this is cut when the agent starts.
constexpr std::size_t kLoadableBytes = 15359;

// The agent watches no port whose listening socket has a higher descriptor.
constexpr int kHighestWatchedDescriptor = 255;

StatusFacts collectFacts();
