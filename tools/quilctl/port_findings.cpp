#include "tools/quilctl/port_findings.hpp"

#include <map>
#include <set>

#include "tools/quilctl/channel_words.hpp"

namespace {

std::string portOf(const SavedSession& session) {
    return "port " + std::to_string(session.port) + " of " + session.appId;
}

// The push server gives out ports, and is free to give one twice. Only one session can listen on
// it, and which one may change with every start.
void judgeSharedPorts(const StatusFacts& facts, Findings& findings) {
    std::map<int, std::set<std::string>> applications;
    for (const SavedSession& session : facts.saved.sessions) {
        applications[session.port].insert(session.appId);
    }
    for (const auto& [port, names] : applications) {
        if (port <= 0 || port > kHighestPort || names.size() < 2) {
            continue;
        }
        std::string list;
        for (const std::string& name : names) {
            list += list.empty() ? name : " and " + name;
        }
        add(findings, "port-shared",
            "port " + std::to_string(port) + " was given to " + list +
                ": one of them gets the pushes of all, which one may change when the agent starts",
            "the push server has to give each application a port of its own; then destroy their "
            "channels and create them again (created alone they may get the same port)");
    }
}

// A push server may keep the port of an application that registers again.
constexpr const char* kFreeThePort =
    "end that program, then create the channel again; for another port destroy the channel first";

void judgeListening(const StatusFacts& facts, Findings& findings) {
    for (const SavedSession& session : facts.saved.sessions) {
        if (session.port > kHighestPort) {
            add(findings, "port-invalid",
                portOf(session) + " is not a port: the push server has to correct it",
                "tell who runs " + session.ppgUrl + "; then create the channel again");
        } else if (!session.isListening) {
            add(findings, "port-silent", "nobody listens on " + portOf(session),
                "the port was taken when the agent wanted it, or listen-address is wrong: see "
                "'Failed to bind' in its log, then create the channel again");
        } else if (session.listener != facts.agents.front().user) {
            add(findings, "port-taken",
                "another user (" + std::to_string(session.listener) + ") listens on " +
                    portOf(session),
                kFreeThePort);
        } else if (session.isForeign) {
            add(findings, "port-taken",
                "another process of the agent's user (" + session.holder + ") listens on " +
                    portOf(session),
                kFreeThePort);
        }
    }
}

void judgeDescriptors(const StatusFacts& facts, Findings& findings) {
    for (const AgentPort& port : facts.ports.agentPorts) {
        if (port.descriptor <= kHighestWatchedDescriptor) {
            continue;
        }
        add(findings, "port-unwatched",
            "port " + std::to_string(port.port) + (port.appId.empty() ? "" : " of " + port.appId) +
                " is on descriptor " + std::to_string(port.descriptor) +
                " of the agent, which watches none above " +
                std::to_string(kHighestWatchedDescriptor) + ": pushes wait there for ever",
            "destroy channels that nobody needs, then create this one again");
    }
}

void judgeWaiting(const StatusFacts& facts, Findings& findings) {
    for (const SavedSession& session : facts.saved.sessions) {
        const std::size_t waiting = session.waitingConnections - session.goneSenders;
        if (waiting == 0) {
            continue;
        }
        warn(findings, "pushes-wait",
             std::to_string(waiting) + (waiting == 1 ? " push waits" : " pushes wait") +
                 " for an answer on " + portOf(session) +
                 (session.unaccepted == 0 ? ""
                                          : ", " + std::to_string(session.unaccepted) +
                                                " of them not taken off the port yet"),
             "see whether the application is connected (quilctl clients) and answers; how long "
             "each waits: quilctl trace");
    }
}

// Nobody is there any more who could get an answer.
void judgeGoneSenders(const StatusFacts& facts, Findings& findings) {
    for (const SavedSession& session : facts.saved.sessions) {
        if (session.goneSenders == 0) {
            continue;
        }
        const bool isOne = session.goneSenders == 1;
        warn(findings, "senders-gone",
             (isOne ? "the sender of 1 push"
                    : "the senders of " + std::to_string(session.goneSenders) + " pushes") +
                 " on " + portOf(session) + (isOne ? " has gone" : " have gone"),
             "see whether the application is connected (quilctl clients) and answers before "
             "senders give up; the agent lets go of such a connection push-timeout after that");
    }
}

}  // namespace

void judgePorts(const StatusFacts& facts, Findings& findings) {
    judgeSharedPorts(facts, findings);
    if (!facts.agents.empty()) {
        judgeListening(facts, findings);
    }
    judgeDescriptors(facts, findings);
    judgeWaiting(facts, findings);
    judgeGoneSenders(facts, findings);
}
