#include "tools/quilctl/status_facts.hpp"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/root/root.hpp"

namespace {

// Within which an agent that is started has read its files.
constexpr std::chrono::milliseconds kStartTakes{100};

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
void readRules(StatusFacts* facts) {
    const std::string path = settingOf(facts->configuration, "rules");
    if (path.empty()) {
        return;
    }
    facts->areRulesClosed =
        access(platformPath(path).c_str(), R_OK) != 0 && errno == EACCES && geteuid() != 0;
    if (!facts->areRulesClosed) {
        facts->rules = readConfiguredRules(path);
    }
}

// Of the files that the agent reads when it starts, those that changed since.
void lookForNewerFiles(StatusFacts* facts) {
    if (facts->agents.empty()) {
        return;
    }
    const auto start = startOf(facts->agents.front().pid);
    for (const std::string& path :
         {std::string("/etc/quilagent.conf"), settingOf(facts->configuration, "rules")}) {
        struct stat file {};
        if (path.empty() || stat(platformPath(path).c_str(), &file) != 0 ||
            !S_ISREG(file.st_mode)) {
            continue;
        }
        const std::chrono::system_clock::time_point change(
            std::chrono::duration_cast<std::chrono::system_clock::duration>(
                std::chrono::seconds(file.st_mtim.tv_sec) +
                std::chrono::nanoseconds(file.st_mtim.tv_nsec)));
        if (change > start + kStartTakes) {
            facts->newerFiles.push_back(path);
        }
    }
}

pid_t findStoppedService() {
    for (const AgentProcess& service : findProcesses("ppsd")) {
        if (service.isStopped) {
            return service.pid;
        }
    }
    return 0;
}

// Whom a signal stopped need not be waited for.
ProbeResult tryAgent(const StatusFacts& facts, std::chrono::milliseconds limit) {
    if (facts.agents.empty() || !facts.isObjectServed || !facts.objectProblem.empty()) {
        return {};
    }
    const bool areAllStopped =
        std::all_of(facts.agents.begin(), facts.agents.end(),
                    [](const AgentProcess& agent) { return agent.isStopped; });
    return areAllStopped ? ProbeResult{ProbeResult::Silent, ""} : probeAgent(limit);
}

}  // namespace

StatusFacts collectFacts(bool isCheck, std::chrono::milliseconds limit) {
    StatusFacts facts;
    facts.agents = findProcesses("quilagent");
    facts.configuration = readConfiguration();
    readRules(&facts);
    lookAtAddresses(&facts);
    static_cast<ServiceFacts&>(facts) = readServiceFacts(facts.agents, isCheck, limit);
    if (facts.service == ServiceState::Silent) {
        facts.stoppedService = findStoppedService();
    }
    if (facts.isObjectServed) {
        const std::size_t found = facts.agents.size();
        facts.agents = withoutStrangers(std::move(facts.agents), facts.objectOwner);
        facts.strangers = found - facts.agents.size();
    }
    lookForNewerFiles(&facts);
    facts.ports = matchPorts(facts.agents, &facts.saved.sessions);
    if (isCheck && facts.service == ServiceState::Mounted) {
        facts.store = checkStore(limit);
        facts.probe = tryAgent(facts, limit);
        findWaiting(&facts.saved.sessions);
    }
    return facts;
}
