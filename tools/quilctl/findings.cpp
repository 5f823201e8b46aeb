#include "tools/quilctl/findings.hpp"

#include <cstdlib>
#include <map>
#include <set>

namespace {

using Findings = std::vector<Finding>;

// Beyond this share of what a start can load it is time to think.
constexpr std::size_t kFullPercent = 80;

void add(Findings& findings, const char* name, const std::string& words, const std::string& next) {
    findings.push_back({false, name, words, next});
}

void warn(Findings& findings, const char* name, const std::string& words, const std::string& next) {
    findings.push_back({true, name, words, next});
}

std::string userText(const std::vector<AgentProcess>& agents) {
    return "the agent's user " + (agents.empty() ? "" : std::to_string(agents.front().user));
}

void judgeProcesses(const StatusFacts& facts, Findings& findings) {
    if (facts.service != ServiceState::Mounted) {
        add(findings, facts.service == ServiceState::Dead ? "mount-dead" : "no-mount",
            describeState(facts.service), nextStepFor(facts.service));
    }
    if (facts.agents.empty()) {
        add(findings, "no-agent", "no process named quilagent runs here",
            "start quilagent once the object service is mounted");
    }
    if (facts.agents.size() > 1) {
        warn(findings, "many-agents",
             std::to_string(facts.agents.size()) +
                 " processes named quilagent run with this QUIL_ROOT, or with one that only root "
                 "can see",
             "end all but one; as root, this counts those of this QUIL_ROOT alone");
    }
}

void judgePushObject(const StatusFacts& facts, Findings& findings) {
    if (facts.service != ServiceState::Mounted) {
        return;
    }
    if (facts.isObjectOrdinary || (facts.isObjectServed && facts.agents.empty())) {
        add(findings, "object-in-the-way",
            facts.agents.empty()
                ? "/pps/services/push/ipc is there though no agent runs: an ordinary object, or "
                  "somebody else's"
                : "an ordinary object is in the place of /pps/services/push/ipc: nobody reads what "
                  "applications write to it",
            "remove it (ppsctl rm services/push/ipc), then start the agent again");
    } else if (!facts.objectProblem.empty()) {
        add(findings, "object-forbidden",
            "you may not use /pps/services/push/ipc: " + facts.objectProblem,
            "see owner and mode: ppsctl ls services/push; applications need 0666 and 0755");
    } else if (!facts.isObjectServed && !facts.agents.empty()) {
        add(findings, "not-served", "the agent runs, but does not serve /pps/services/push/ipc",
            "it was started before the object service, or may not write to /pps/services/push: "
            "see its log, then start it again");
    }
}

void judgeIdentity(const StatusFacts& facts, Findings& findings) {
    for (const IdentityValue& value : facts.identity) {
        const std::string where = "'" + value.attribute + "' of " + value.object;
        // The IMSI is read before the agent changes its user, so what that user may read says
        // nothing about it.
        if (!value.isReadableByAgent && value.name != "IMSI") {
            add(findings, "identity-forbidden",
                userText(facts.agents) + " may not read " + where + " (" + value.name + ")",
                "give it the right: chmod or chown the object below /pps");
        } else if (!value.problem.empty() && value.name == "IMSI") {
            warn(findings, "no-imsi",
                 "the " + value.name + " is unknown (" + where + "): " + value.problem,
                 "without it a change of the SIM is not noticed; set it, then restart the agent");
        } else if (!value.problem.empty()) {
            const bool isPin = value.name == "PIN";
            add(findings, isPin ? "no-pin" : "no-identity",
                "the device's " + value.name + " is unknown (" + where + "): " + value.problem,
                std::string(isPin ? "without it every channel has an empty token; "
                                  : "push servers are told an empty one; ") +
                    "set it: ppsctl write --create " + value.object.substr(5) + " " +
                    value.attribute + "=...");
        }
        if (value.name == "IMSI" && !value.value.empty() && !facts.saved.imsi.empty() &&
            value.value != facts.saved.imsi) {
            warn(findings, "sim-changed", "the saved sessions belong to another SIM",
                 "the agent deregisters them when it starts next; applications then hear "
                 "onSimChange");
        }
    }
}

void judgeConfiguration(const StatusFacts& facts, Findings& findings) {
    const Configuration& configuration = facts.configuration;
    if (!configuration.isFileRead) {
        warn(findings, "no-configuration",
             "/etc/quilagent.conf cannot be read: every key has its default",
             "install the file and make it readable for everybody");
    }
    for (const std::string& problem : configuration.problems) {
        add(findings, "configuration", "/etc/quilagent.conf: " + problem,
            "mend the line, then restart the agent");
    }
    const int port = std::atoi(settingOf(configuration, "proxy-port").c_str());
    if (port > 0 && facts.isProxyLocal && !facts.isProxyListening) {
        add(findings, "proxy",
            "every registration goes through the proxy " + settingOf(configuration, "proxy-host") +
                " port " + std::to_string(port) + ", where nothing listens",
            "start the proxy, or do without one: set proxy-port to 0");
    }
    if (!facts.isListenAddressOurs) {
        add(findings, "listen-address",
            "pushes are awaited on " + settingOf(configuration, "listen-address") +
                ", which is no address of this machine",
            "set listen-address to one of this machine's, such as 0.0.0.0");
    }
    if (std::atoi(settingOf(configuration, "http-timeout").c_str()) <= 0) {
        warn(findings, "http-timeout",
             "http-timeout is off: a silent push server holds up its applications for ever",
             "set http-timeout to 60");
    }
    if (std::atoi(settingOf(configuration, "push-timeout").c_str()) <= 0) {
        warn(findings, "push-timeout",
             "push-timeout is off: senders that stop in the middle are waited for until there are "
             "too many",
             "set push-timeout to 30");
    }
}

void judgeRules(const StatusFacts& facts, Findings& findings) {
    const std::string path = settingOf(facts.configuration, "rules");
    const std::string effect = ": the agent lets root alone act for applications";
    if (!facts.rules.problem.empty()) {
        add(findings, "rules", path + " cannot be read (" + facts.rules.problem + ")" + effect,
            "mend the key 'rules' or the file, then restart the agent");
    }
    for (const RuleError& error : facts.rules.rules.errors()) {
        add(findings, "rules",
            path + " line " + std::to_string(error.line) + " " + error.reason + effect,
            "mend the line, look again with quilctl rules check, then restart the agent");
    }
}

void judgeSaved(const StatusFacts& facts, Findings& findings) {
    const SavedObject& saved = facts.saved;
    if (!saved.exists) {
        return;
    }
    if (!saved.isWritableByAgent) {
        add(findings, "saved-forbidden",
            userText(facts.agents) +
                " may not write /pps/services/push/quilagent, which belongs "
                "to user " +
                std::to_string(saved.owner),
            "sessions are lost at the next restart: chown the object, then restart the agent");
    }
    if (saved.isReadable && saved.bytes > kLoadableBytes) {
        add(findings, "saved-too-long",
            "the saved sessions have " + std::to_string(saved.bytes) + " bytes; a start loads " +
                std::to_string(kLoadableBytes),
            "destroy channels that nobody needs, before the agent restarts");
    } else if (saved.isReadable && !saved.isSound) {
        add(findings, "saved-damaged",
            "/pps/services/push/quilagent is damaged: a start loads no sessions",
            "keep a copy, remove it (ppsctl rm services/push/quilagent), restart the agent");
    } else if (saved.bytes > kLoadableBytes * kFullPercent / 100) {
        warn(findings, "saved-nearly-full",
             "the saved sessions have " + std::to_string(saved.bytes) + " of the " +
                 std::to_string(kLoadableBytes) + " bytes that a start loads",
             "destroy channels that nobody needs");
    }
}

// The push server gives out ports, and is free to give one twice. Only one session can listen on
// it, and which one may change with every start.
void judgeSharedPorts(const StatusFacts& facts, Findings& findings) {
    std::map<int, std::set<std::string>> applications;
    for (const SavedSession& session : facts.saved.sessions) {
        applications[session.port].insert(session.appId);
    }
    for (const auto& [port, names] : applications) {
        if (port <= 0 || names.size() < 2) {
            continue;
        }
        std::string list;
        for (const std::string& name : names) {
            list += list.empty() ? name : " and " + name;
        }
        add(findings, "port-shared",
            "port " + std::to_string(port) + " was given to " + list +
                ": one of them gets the pushes of all, which one may change when the agent starts",
            "the push server has to give each application a port of its own; then create their "
            "channels again");
    }
}

void judgePorts(const StatusFacts& facts, Findings& findings) {
    if (facts.agents.empty()) {
        return;
    }
    for (const SavedSession& session : facts.saved.sessions) {
        const std::string port = "port " + std::to_string(session.port) + " of " + session.appId;
        if (!session.isListening) {
            add(findings, "port-silent", "nobody listens on " + port,
                "the port was taken when the agent wanted it, or listen-address is wrong: see "
                "'Failed to bind' in its log, then create the channel again");
        } else if (session.listener != facts.agents.front().user) {
            add(findings, "port-taken",
                "another user (" + std::to_string(session.listener) + ") listens on " + port,
                "end that program, or create the channel again to get another port");
        }
    }
}

void judgeDescriptors(const StatusFacts& facts, Findings& findings) {
    for (const AgentPort& port : facts.agentPorts) {
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

}  // namespace

std::vector<Finding> findProblems(const StatusFacts& facts) {
    Findings found;
    judgeProcesses(facts, found);
    judgePushObject(facts, found);
    judgeIdentity(facts, found);
    judgeConfiguration(facts, found);
    judgeRules(facts, found);
    judgeSaved(facts, found);
    judgeSharedPorts(facts, found);
    judgePorts(facts, found);
    judgeDescriptors(facts, found);
    Findings ordered;
    for (const bool isWarning : {false, true}) {
        for (const Finding& finding : found) {
            if (finding.isWarning == isWarning) {
                ordered.push_back(finding);
            }
        }
    }
    return ordered;
}
