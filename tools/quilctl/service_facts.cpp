#include "tools/quilctl/service_facts.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "platform/pps/decoder.hpp"
#include "platform/root/root.hpp"
#include "tools/common/abandonable.hpp"

// The child's way to hand over what it saw. Fields that are not named are none of the service's.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(IdentityValue, name, object, attribute, value, problem,
                                   isReadableByAgent, isClosedToUs)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SavedSession, appId, ppgUrl, launchString, port)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SavedObject, exists, isReadable, isSound, bytes, imsi, owner,
                                   isWritableByAgent, sessions)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ConnectedClient, id, user, group, process, program)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ServiceFacts, service, isObjectServed, isObjectOrdinary,
                                   objectProblem, objectMode, objectOwner, closedFolders, identity,
                                   saved, clients, mayListClients)

namespace {

constexpr const char* kPushObject = "/pps/services/push/ipc";
constexpr const char* kSavedObject = "/pps/services/push/quilagent";
constexpr const char* kDeviceInfo = "/pps/system/nvram/deviceinfo";
constexpr const char* kProperties = "/pps/services/deviceproperties";
constexpr const char* kSim = "/pps/services/cellular/uicc/card0/status_private";
constexpr std::size_t kMaxObject = 256 * 1024;
constexpr unsigned kPermissions = 0777;

// An agent whose object service was restarted serves again within a tenth of a second.
constexpr std::chrono::milliseconds kTimeToServe{1000};
constexpr std::chrono::milliseconds kBetweenLooks{50};

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

// The folders on the way to an object, from /pps on.
std::vector<std::string> foldersAbove(const std::string& object) {
    std::vector<std::string> folders;
    for (std::size_t slash = object.find('/', 1); slash != std::string::npos;
         slash = object.find('/', slash + 1)) {
        folders.push_back(object.substr(0, slash));
    }
    return folders;
}

// True when `agent` may use the object, all folders on the way included.
bool mayReach(const AgentProcess& agent, const std::string& object, unsigned bits) {
    struct stat info {};
    for (const std::string& folder : foldersAbove(object)) {
        if (stat(platformPath(folder).c_str(), &info) == 0 && !mayAccess(agent, info, 1)) {
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
        value.isClosedToUs = error == EACCES;
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

// The list of clients is there for served objects alone. Whoever may not read it learns that too.
bool isServed(const std::string& path) {
    const int list = open((path + "?clients").c_str(), O_RDONLY | O_CLOEXEC);
    const int error = errno;
    if (list >= 0) {
        close(list);
    }
    return list >= 0 || error != ENOENT;
}

void lookAtPushObject(ServiceFacts* facts) {
    const std::string path = platformPath(kPushObject);
    struct stat info {};
    const bool isThere = stat(path.c_str(), &info) == 0;
    if (isThere ? access(path.c_str(), R_OK | W_OK) != 0 : errno != ENOENT) {
        facts->objectProblem = std::strerror(errno);
    }
    facts->isObjectServed = isThere && isServed(path);
    facts->isObjectOrdinary = isThere && !facts->isObjectServed;
    facts->objectMode = info.st_mode & kPermissions;
    facts->objectOwner = info.st_uid;
    for (const std::string& folder : foldersAbove(kPushObject)) {
        struct stat above {};
        if (stat(platformPath(folder).c_str(), &above) == 0 && (above.st_mode & S_IXOTH) == 0) {
            facts->closedFolders.push_back(folder);
        }
    }
}

// Whoever asks in the very moment of a restart shall not be told of it.
void waitUntilServed() {
    const auto deadline = std::chrono::steady_clock::now() + kTimeToServe;
    while (access(platformPath(kPushObject).c_str(), F_OK) != 0 && errno == ENOENT &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kBetweenLooks);
    }
}

ServiceFacts look(std::vector<AgentProcess> agents, bool isPatient) {
    ServiceFacts facts;
    facts.service = objectServiceState();
    if (facts.service != ServiceState::Mounted) {
        return facts;
    }
    if (isPatient && !agents.empty()) {
        waitUntilServed();
    }
    lookAtPushObject(&facts);
    if (facts.isObjectServed) {
        agents = withoutStrangers(std::move(agents), facts.objectOwner);
    }
    facts.identity = {readIdentity("PIN", kDeviceInfo, "PIN", agents),
                      readIdentity("model", kDeviceInfo, "HardwareID", agents),
                      readIdentity("OS version", kProperties, "scmbundle", agents),
                      readIdentity("IMSI", kSim, "imsi", agents)};
    facts.mayListClients =
        facts.isObjectServed && readConnectedClients(kPushObject, &facts.clients) == 0;
    facts.saved = readSaved(agents);
    return facts;
}

}  // namespace

ServiceFacts readServiceFacts(const std::vector<AgentProcess>& agents, bool isPatient,
                              std::chrono::milliseconds limit) {
    // CBOR, as strings need not be UTF-8.
    const std::optional<std::string> seen = runAbandonable(limit, [&] {
        const std::vector<std::uint8_t> bytes =
            nlohmann::json::to_cbor(nlohmann::json(look(agents, isPatient)));
        return std::string(bytes.begin(), bytes.end());
    });
    if (seen) {
        return nlohmann::json::from_cbor(*seen).get<ServiceFacts>();
    }
    ServiceFacts facts;
    facts.service = ServiceState::Silent;
    return facts;
}
