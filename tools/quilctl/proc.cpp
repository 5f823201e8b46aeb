#include "tools/quilctl/proc.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "platform/root/root.hpp"

namespace {

constexpr int kStateEstablished = 0x01;
constexpr int kStateCloseWait = 0x08;
constexpr int kStateListen = 0x0A;

void readTable(const char* path, std::vector<TcpSocket>* sockets) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);  // the headings
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues, timer, retransmits, user, timeout;
        unsigned long inode = 0;
        fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> user >>
            timeout >> inode;
        const std::size_t colon = local.rfind(':');
        if (!fields || colon == std::string::npos) {
            continue;
        }
        const long code = std::strtol(state.c_str(), nullptr, 16);
        TcpSocket socket;
        socket.port =
            static_cast<std::uint16_t>(std::strtoul(local.c_str() + colon + 1, nullptr, 16));
        socket.isListening = code == kStateListen;
        socket.isHeld = code == kStateEstablished || code == kStateCloseWait;
        socket.isPeerGone = code == kStateCloseWait;
        socket.user = static_cast<uid_t>(std::strtoul(user.c_str(), nullptr, 10));
        socket.inode = inode;
        socket.ends = local + " " + remote;
        sockets->push_back(socket);
    }
}

std::string contentOf(const std::filesystem::path& path) {
    // Through the stream, which takes it for the end when the process goes under the read.
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// A process that is ending has no memory any more, and with it no environment either.
bool isEnding(const std::filesystem::path& process) {
    return contentOf(process / "status").find("\nVmSize:") == std::string::npos;
}

enum class Root { Ours, Unknown, NotOurs };

// NotOurs also for a process that is ending.
Root rootOf(const std::filesystem::path& process) {
    const std::string environment = contentOf(process / "environ");
    if (environment.empty()) {
        return isEnding(process) ? Root::NotOurs : Root::Unknown;
    }
    std::string root;
    std::istringstream variables(environment);
    for (std::string variable; std::getline(variables, variable, '\0');) {
        if (variable.compare(0, 10, "QUIL_ROOT=") == 0) {
            root = variable.substr(10);
        }
    }
    while (!root.empty() && root.back() == '/') {
        root.pop_back();
    }
    return root == platformPath("") ? Root::Ours : Root::NotOurs;
}

bool isProcess(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](char byte) {
        return std::isdigit(static_cast<unsigned char>(byte)) != 0;
    });
}

// The processes there are.
std::vector<pid_t> allProcesses() {
    std::vector<pid_t> processes;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        if (isProcess(name)) {
            processes.push_back(std::atoi(name.c_str()));
        }
    }
    return processes;
}

AgentProcess describe(const std::filesystem::path& process) {
    AgentProcess agent;
    agent.pid = std::atoi(process.filename().c_str());
    std::ifstream status(process / "status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream fields(line);
        std::string name;
        unsigned real = 0;
        unsigned effective = 0;
        fields >> name;
        if (name == "Uid:" && fields >> real >> effective) {
            agent.user = effective;
        } else if (name == "Gid:" && fields >> real >> effective) {
            agent.group = effective;
        } else if (name == "State:") {
            char state = 0;
            fields >> state;
            agent.isStopped = state == 'T' || state == 't';
        } else if (name == "Groups:") {
            agent.groups.assign(std::istream_iterator<gid_t>(fields), {});
        }
    }
    return agent;
}

}  // namespace

std::vector<TcpSocket> readTcpSockets() {
    std::vector<TcpSocket> sockets;
    readTable("/proc/net/tcp", &sockets);
    readTable("/proc/net/tcp6", &sockets);
    return sockets;
}

bool readOpenSockets(pid_t process, std::vector<OpenSocket>* sockets) {
    static const std::string prefix = "socket:[";
    bool isSeen = false;
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc/" + std::to_string(process) + "/fd", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        std::error_code isGone;
        const std::string target = std::filesystem::read_symlink(entry->path(), isGone);
        isSeen = isSeen || !isGone;
        if (target.compare(0, prefix.size(), prefix) == 0) {
            sockets->push_back({std::atoi(entry->path().filename().c_str()),
                                std::strtoul(target.c_str() + prefix.size(), nullptr, 10)});
        }
    }
    return isSeen;
}

pid_t findHolder(unsigned long inode) {
    for (const pid_t process : allProcesses()) {
        std::vector<OpenSocket> sockets;
        readOpenSockets(process, &sockets);
        const bool isHeld = std::any_of(sockets.begin(), sockets.end(),
                                        [&](const auto& socket) { return socket.inode == inode; });
        if (isHeld) {
            return process;
        }
    }
    return 0;
}

std::chrono::system_clock::time_point startOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    // The name is in parentheses and may hold anything, so the fields are counted behind it.
    std::istringstream fields(text.substr(std::min(text.rfind(')'), text.size() - 1) + 1));
    constexpr int kFieldsBefore = 19;
    std::string field;
    for (int i = 0; i < kFieldsBefore; ++i) {
        fields >> field;
    }
    long long ticks = 0;
    if (text.empty() || !(fields >> ticks)) {
        return {};
    }
    timespec sinceBoot{};
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto up = std::chrono::seconds(sinceBoot.tv_sec) +
                    std::chrono::nanoseconds(sinceBoot.tv_nsec) -
                    std::chrono::milliseconds(1000 * ticks / sysconf(_SC_CLK_TCK));
    return std::chrono::system_clock::now() -
           std::chrono::duration_cast<std::chrono::system_clock::duration>(up);
}

std::string programOf(pid_t process) {
    std::string name = contentOf("/proc/" + std::to_string(process) + "/comm");
    if (!name.empty() && name.back() == '\n') {
        name.pop_back();
    }
    return name;
}

std::vector<AgentProcess> findProcesses(const std::string& program) {
    std::vector<AgentProcess> found;
    for (const pid_t process : allProcesses()) {
        const std::filesystem::path folder = "/proc/" + std::to_string(process);
        const Root root = programOf(process) == program ? rootOf(folder) : Root::NotOurs;
        if (root != Root::NotOurs) {
            found.push_back(describe(folder));
            found.back().isRootKnown = root == Root::Ours;
        }
    }
    return found;
}

std::vector<AgentProcess> withoutStrangers(std::vector<AgentProcess> agents, uid_t owner) {
    std::erase_if(agents, [owner](const AgentProcess& agent) {
        return !agent.isRootKnown && agent.user != owner;
    });
    return agents;
}
