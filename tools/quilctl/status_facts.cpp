#include "tools/quilctl/status_facts.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "platform/pps/decoder.hpp"
#include "platform/root/root.hpp"

namespace {

constexpr const char* kPushObject = "/pps/services/push/ipc";
constexpr const char* kSavedObject = "/pps/services/push/quilagent";
constexpr const char* kDeviceInfo = "/pps/system/nvram/deviceinfo";
constexpr const char* kProperties = "/pps/services/deviceproperties";
constexpr const char* kSim = "/pps/services/cellular/uicc/card0/status_private";
constexpr std::size_t kMaxObject = 256 * 1024;

// True when `agent` may do what `bits` (4 read, 2 write, 1 search) say with this file.
bool mayAccess(const AgentProcess& agent, const struct stat& info, unsigned bits) {
    if (agent.user == 0) {
        return true;
    }
    const bool isInGroup =
        agent.group == info.st_gid ||
        std::find(agent.groups.begin(), agent.groups.end(), info.st_gid) != agent.groups.end();
    const unsigned shift = agent.user == info.st_uid ? 6 : isInGroup ? 3 : 0;
    return ((info.st_mode >> shift) & bits) == bits;
}

// True when `agent` may use the object, all folders on the way included.
bool mayReach(const AgentProcess& agent, const std::string& object, unsigned bits) {
    struct stat info {};
    for (std::size_t slash = object.find('/', 1); slash != std::string::npos;
         slash = object.find('/', slash + 1)) {
        if (stat(platformPath(object.substr(0, slash)).c_str(), &info) == 0 &&
            !mayAccess(agent, info, 1)) {
            return false;
        }
    }
    return stat(platformPath(object).c_str(), &info) != 0 || mayAccess(agent, info, bits);
}

// The text of an object. 0, or errno.
int readObject(const std::string& object, std::string* text) {
    const int file = open(platformPath(object).c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return errno;
    }
    text->resize(kMaxObject);
    const ssize_t count = read(file, text->data(), text->size());
    const int error = count < 0 ? errno : 0;
    text->resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    close(file);
    return error;
}

IdentityValue readIdentity(const std::string& name, const char* object, const char* attribute,
                           const std::vector<AgentProcess>& agents) {
    IdentityValue value;
    value.name = name;
    value.object = object;
    value.attribute = attribute;
    std::string text;
    const int error = readObject(object, &text);
    if (error != 0) {
        value.problem = error == ENOENT ? "there is no such object" : std::strerror(error);
    } else {
        pps_decoder_t decoder;
        pps_decoder_initialize(&decoder, text.c_str());
        pps_decoder_push(&decoder, nullptr);
        pps_decoder_get_string(&decoder, attribute, &value.value);
        value.problem = value.value.empty() ? "the attribute is missing or empty" : "";
    }
    for (const AgentProcess& agent : agents) {
        value.isReadableByAgent = value.isReadableByAgent && mayReach(agent, object, 4);
    }
    return value;
}

std::string stringOf(pps_decoder_t* decoder, const char* name) {
    std::string value;
    pps_decoder_get_string(decoder, name, &value);
    return value;
}

void readSessions(pps_decoder_t* decoder, SavedObject* saved) {
    const std::vector<TcpSocket> sockets = readTcpSockets();
    pps_decoder_push(decoder, "dat");
    pps_decoder_push(decoder, "sessions");
    const int count = pps_decoder_length(decoder);
    for (int i = 0; i < count; ++i) {
        pps_decoder_push(decoder, nullptr);
        SavedSession session;
        session.appId = stringOf(decoder, "providerApplicationId");
        session.ppgUrl = stringOf(decoder, "ppgUrl");
        session.launchString = stringOf(decoder, "launchString");
        pps_decoder_get_int(decoder, "port", &session.port);
        for (const TcpSocket& socket : sockets) {
            if (socket.port != session.port) {
                continue;
            }
            if (socket.isListening) {
                session.isListening = true;
                session.listener = socket.user;
            }
            // The sender's end has the port as its remote one, so each push is counted once.
            session.heldConnections += socket.isHeld ? 1 : 0;
        }
        saved->sessions.push_back(session);
        pps_decoder_pop(decoder);
    }
}

SavedObject readSaved(const std::vector<AgentProcess>& agents) {
    SavedObject saved;
    struct stat info {};
    saved.exists = stat(platformPath(kSavedObject).c_str(), &info) == 0;
    if (!saved.exists) {
        return saved;
    }
    saved.owner = info.st_uid;
    for (const AgentProcess& agent : agents) {
        saved.isWritableByAgent = saved.isWritableByAgent && mayReach(agent, kSavedObject, 6);
    }
    std::string text;
    saved.isReadable = readObject(kSavedObject, &text) == 0;
    saved.bytes = text.size();
    pps_decoder_t decoder;
    saved.isSound = pps_decoder_initialize(&decoder, text.c_str()) == PPS_DECODER_OK;
    pps_decoder_push(&decoder, nullptr);
    saved.imsi = stringOf(&decoder, "imsi");
    readSessions(&decoder, &saved);
    return saved;
}

std::vector<AgentPort> findAgentPorts(const StatusFacts& facts) {
    std::map<unsigned long, int> listening;  // port by inode
    for (const TcpSocket& socket : readTcpSockets()) {
        if (socket.isListening) {
            listening[socket.inode] = socket.port;
        }
    }
    std::vector<AgentPort> ports;
    for (const AgentProcess& agent : facts.agents) {
        for (const OpenSocket& socket : readOpenSockets(agent.pid)) {
            const auto found = listening.find(socket.inode);
            if (found == listening.end()) {
                continue;
            }
            AgentPort port{found->second, socket.descriptor, ""};
            for (const SavedSession& session : facts.saved.sessions) {
                port.appId = session.port == port.port ? session.appId : port.appId;
            }
            ports.push_back(port);
        }
    }
    std::sort(ports.begin(), ports.end(), [](const AgentPort& left, const AgentPort& right) {
        return left.descriptor < right.descriptor;
    });
    return ports;
}

void lookAtPushObject(StatusFacts* facts) {
    const std::string path = platformPath(kPushObject);
    struct stat info {};
    const bool isThere = stat(path.c_str(), &info) == 0;
    if (isThere ? access(path.c_str(), R_OK | W_OK) != 0 : errno != ENOENT) {
        facts->objectProblem = std::strerror(errno);
    }
    // A served object holds no attributes, so it has no size. An ordinary one without attributes
    // cannot be told from it.
    facts->isObjectOrdinary = isThere && info.st_size > 0;
    facts->isObjectServed = isThere && !facts->isObjectOrdinary;
}

bool isLoopback(const std::string& host) {
    return host.compare(0, 4, "127.") == 0 || host == "localhost" || host == "::1";
}

// True for an address of this machine, and for text that is none (a name is not looked up).
bool isOurAddress(const std::string& host) {
    in_addr wanted{};
    if (inet_pton(AF_INET, host.c_str(), &wanted) != 1 || isLoopback(host) ||
        wanted.s_addr == INADDR_ANY) {
        return true;
    }
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return true;
    }
    bool isOurs = false;
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            sockaddr_in address{};
            std::memcpy(&address, entry->ifa_addr, sizeof address);
            isOurs = isOurs || address.sin_addr.s_addr == wanted.s_addr;
        }
    }
    freeifaddrs(first);
    return isOurs;
}

void lookAtAddresses(StatusFacts* facts) {
    facts->isProxyLocal = isLoopback(settingOf(facts->configuration, "proxy-host"));
    const int port = std::atoi(settingOf(facts->configuration, "proxy-port").c_str());
    for (const TcpSocket& socket : readTcpSockets()) {
        facts->isProxyListening =
            facts->isProxyListening || (socket.isListening && socket.port == port);
    }
    facts->isListenAddressOurs = isOurAddress(settingOf(facts->configuration, "listen-address"));
}

// The agent reads them as root. Where nobody else may, nothing can be said of them.
RulesFile readRules(const Configuration& configuration) {
    const std::string path = settingOf(configuration, "rules");
    const bool isClosed =
        access(platformPath(path).c_str(), R_OK) != 0 && errno == EACCES && geteuid() != 0;
    return path.empty() || isClosed ? RulesFile{} : readConfiguredRules(path);
}

}  // namespace

StatusFacts collectFacts() {
    StatusFacts facts;
    facts.service = objectServiceState();
    facts.agents = findAgents();
    facts.configuration = readConfiguration();
    facts.rules = readRules(facts.configuration);
    lookAtAddresses(&facts);
    if (facts.service == ServiceState::Mounted) {
        lookAtPushObject(&facts);
        facts.identity = {readIdentity("PIN", kDeviceInfo, "PIN", facts.agents),
                          readIdentity("model", kDeviceInfo, "HardwareID", facts.agents),
                          readIdentity("OS version", kProperties, "scmbundle", facts.agents),
                          readIdentity("IMSI", kSim, "imsi", facts.agents)};
        facts.mayListClients =
            facts.isObjectServed && readConnectedClients(kPushObject, &facts.clients) == 0;
        facts.saved = readSaved(facts.agents);
    }
    facts.agentPorts = findAgentPorts(facts);
    return facts;
}
