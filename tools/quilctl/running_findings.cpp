#include "tools/quilctl/running_findings.hpp"

#include <cstdio>

namespace {

// What applications of any user need.
constexpr unsigned kOpenToAll = 0666;

std::string octal(unsigned mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode);
    return text;
}

// "process 7 of user 44 and process 8 of user 44".
std::string listOf(const std::vector<AgentProcess>& agents) {
    std::string list;
    for (const AgentProcess& agent : agents) {
        list += (list.empty() ? "" : " and ") + std::string("process ") +
                std::to_string(agent.pid) + " of user " + std::to_string(agent.user);
    }
    return list;
}

void judgeService(const StatusFacts& facts, Findings& findings) {
    if (facts.service == ServiceState::Mounted) {
        return;
    }
    const bool isDead = facts.service == ServiceState::Dead;
    const bool isSilent = facts.service == ServiceState::Silent;
    const std::string process = std::to_string(facts.stoppedService);
    const bool isStopped = isSilent && facts.stoppedService != 0;
    add(findings,
        isDead     ? "mount-dead"
        : isSilent ? "service-hangs"
                   : "no-mount",
        describeState(facts.service) +
            (isStopped ? ": ppsd, process " + process + ", was stopped by a signal" : ""),
        isStopped ? "let it run on: kill -CONT " + process : nextStepFor(facts.service));
}

void judgeProcesses(const StatusFacts& facts, Findings& findings) {
    judgeService(facts, findings);
    if (facts.agents.empty()) {
        add(findings, "no-agent", "no process named quilagent runs here",
            "start quilagent once the object service is mounted");
    }
    if (facts.agents.size() > 1) {
        warn(findings, "many-agents",
             "several agents run with this QUIL_ROOT, or with one that only root can see: " +
                 listOf(facts.agents),
             "end all but one, only one can serve applications; as root, this counts those of "
             "this QUIL_ROOT alone");
    }
}

// Whom a stop or a hang holds up answers nobody, though all that lies around looks sound.
void judgeProbe(const StatusFacts& facts, Findings& findings) {
    using Outcome = ProbeResult::Outcome;
    for (const AgentProcess& agent : facts.agents) {
        if (agent.isStopped) {
            const std::string process = std::to_string(agent.pid);
            add(findings, "agent-stopped",
                "the agent, process " + process + ", was stopped by a signal or a debugger",
                "let it run on: kill -CONT " + process);
            return;
        }
    }
    const Outcome outcome = facts.probe.outcome;
    if (outcome == Outcome::Abandoned) {
        add(findings, "service-hangs", describeState(ServiceState::Silent),
            nextStepFor(ServiceState::Silent));
    } else if (outcome == Outcome::Silent || outcome == Outcome::HungUp) {
        add(findings, "agent-hangs",
            "the agent (" + listOf(facts.agents) + ") does not answer a request" +
                (outcome == Outcome::HungUp ? ": the connection ended" : ""),
            "see its log for what it did last, then restart it: systemctl restart quilagent");
    }
}

// Root can open everything, so what root may do says nothing about applications.
void judgeRights(const StatusFacts& facts, Findings& findings) {
    if ((facts.objectMode & kOpenToAll) != kOpenToAll) {
        add(findings, "object-mode",
            "/pps/services/push/ipc has the mode " + octal(facts.objectMode) +
                ": applications of other users cannot use it",
            "chmod 0666 it, which the agent also does when it starts");
    }
    for (const std::string& folder : facts.closedFolders) {
        add(findings, "folder-mode",
            folder +
                " is not open to everybody: applications of other users cannot reach "
                "/pps/services/push/ipc",
            "give everybody the right to pass: chmod o+x the folder");
    }
    if (facts.objectOwner != facts.agents.front().user) {
        warn(findings, "object-owner",
             "/pps/services/push/ipc belongs to user " + std::to_string(facts.objectOwner) +
                 ", not to the agent's, " + std::to_string(facts.agents.front().user),
             "see who serves it: another program of that user may, in the agent's place");
    }
}

void judgePushObject(const StatusFacts& facts, Findings& findings) {
    if (facts.service != ServiceState::Mounted) {
        return;
    }
    if (facts.isObjectServed && facts.agents.empty()) {
        add(findings, "object-in-the-way",
            "/pps/services/push/ipc is served though no agent can be seen: by another program of "
            "user " +
                std::to_string(facts.objectOwner),
            "end that program, then start the agent");
    } else if (facts.isObjectOrdinary) {
        add(findings, "object-in-the-way",
            facts.agents.empty()
                ? "/pps/services/push/ipc is there though no agent runs: an ordinary object"
                : "an ordinary object is in the place of /pps/services/push/ipc: nobody reads what "
                  "applications write to it",
            "remove it (ppsctl rm services/push/ipc), then start the agent again");
    } else if (!facts.objectProblem.empty()) {
        add(findings, "object-forbidden",
            "you may not use /pps/services/push/ipc: " + facts.objectProblem,
            "see owner and mode: ppsctl ls services/push; applications need 0666 and 0755");
    } else if (!facts.isObjectServed && !facts.agents.empty()) {
        add(findings, "not-served", "the agent runs, but does not serve /pps/services/push/ipc",
            "it was started before the object service, lost it and cannot get back, or may not "
            "write to /pps/services/push: see its log, then start it again");
    }
    if (facts.isObjectServed && !facts.agents.empty()) {
        judgeRights(facts, findings);
    }
}

}  // namespace

void judgeRunning(const StatusFacts& facts, Findings& findings) {
    judgeProcesses(facts, findings);
    judgeProbe(facts, findings);
    judgePushObject(facts, findings);
}
