#include "tools/quilctl/port_facts.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <thread>

namespace {

using Inodes = std::map<unsigned long, int>;  // descriptor in the agent, by inode

std::string describeHolder(const TcpSocket& socket) {
    const pid_t process = findHolder(socket.inode);
    return process == 0 ? "a process that cannot be seen"
                        : programOf(process) + ", process " + std::to_string(process);
}

void matchSession(const std::vector<TcpSocket>& sockets, const Inodes& agents, bool isAllSeen,
                  SavedSession* session) {
    const TcpSocket* foreign = nullptr;
    bool isAgents = false;
    for (const TcpSocket& socket : sockets) {
        if (socket.port != session->port) {
            continue;
        }
        // The sender's end has the port as its remote one, so each push is counted once.
        session->heldConnections += socket.isHeld ? 1 : 0;
        if (!socket.isListening) {
            continue;
        }
        session->isListening = true;
        if (agents.contains(socket.inode)) {
            isAgents = true;
            session->listener = socket.user;
        } else if (!isAgents) {
            foreign = &socket;
            session->listener = socket.user;
        }
    }
    if (isAllSeen && !isAgents && foreign != nullptr) {
        session->isForeign = true;
        session->holder = describeHolder(*foreign);
    }
}

std::set<std::string> heldEnds(const std::vector<TcpSocket>& sockets, int port) {
    std::set<std::string> ends;
    for (const TcpSocket& socket : sockets) {
        if (socket.isHeld && socket.port == port) {
            ends.insert(socket.ends);
        }
    }
    return ends;
}

}  // namespace

PortFacts matchPorts(const std::vector<AgentProcess>& agents, std::vector<SavedSession>* sessions) {
    PortFacts facts;
    Inodes inodes;
    // Before the agents' descriptors, so that no port which an agent opens meanwhile looks foreign.
    const std::vector<TcpSocket> sockets = readTcpSockets();
    facts.areAllDescriptorsSeen = !agents.empty();
    for (const AgentProcess& agent : agents) {
        std::vector<OpenSocket> open;
        facts.areAllDescriptorsSeen =
            readOpenSockets(agent.pid, &open) && facts.areAllDescriptorsSeen;
        for (const OpenSocket& socket : open) {
            inodes[socket.inode] = socket.descriptor;
        }
    }
    for (SavedSession& session : *sessions) {
        matchSession(sockets, inodes, facts.areAllDescriptorsSeen, &session);
    }
    for (const TcpSocket& socket : sockets) {
        const auto found = inodes.find(socket.inode);
        if (!socket.isListening || found == inodes.end()) {
            continue;
        }
        AgentPort port{socket.port, found->second, ""};
        for (const SavedSession& session : *sessions) {
            port.appId = session.port == port.port ? session.appId : port.appId;
        }
        facts.agentPorts.push_back(port);
    }
    std::sort(facts.agentPorts.begin(), facts.agentPorts.end(),
              [](const AgentPort& left, const AgentPort& right) {
                  return left.descriptor < right.descriptor;
              });
    return facts;
}

void findWaiting(std::vector<SavedSession>* sessions) {
    const bool isAnyHeld = std::any_of(sessions->begin(), sessions->end(), [](const auto& session) {
        return session.heldConnections > 0;
    });
    if (!isAnyHeld) {
        return;
    }
    const std::vector<TcpSocket> before = readTcpSockets();
    std::this_thread::sleep_for(kWaitingTime);
    const std::vector<TcpSocket> after = readTcpSockets();
    for (SavedSession& session : *sessions) {
        const std::set<std::string> known = heldEnds(before, session.port);
        for (const TcpSocket& socket : after) {
            if (socket.isHeld && socket.port == session.port && known.contains(socket.ends)) {
                ++session.waitingConnections;
                session.goneSenders += socket.isPeerGone ? 1 : 0;
                session.unaccepted += socket.inode == 0 && !socket.isPeerGone ? 1 : 0;
            }
        }
    }
}
