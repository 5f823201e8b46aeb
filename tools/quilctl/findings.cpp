#include "tools/quilctl/findings.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/addresses/networks.hpp"
#include "tools/quilctl/port_findings.hpp"
#include "tools/quilctl/running_findings.hpp"

namespace {

// Beyond this share of what a start can load it is time to think.
constexpr std::size_t kFullPercent = 80;

// A disk with less is full soon.
constexpr std::uint64_t kKilobyte = 1024;
constexpr std::uint64_t kLeastFreeBytes = 1024 * kKilobyte;

std::string userText(const std::vector<AgentProcess>& agents) {
    return "the agent's user " + (agents.empty() ? "" : std::to_string(agents.front().user));
}

void judgeIdentity(const StatusFacts& facts, Findings& findings) {
    for (const IdentityValue& value : facts.identity) {
        const std::string where = "'" + value.attribute + "' of " + value.object;
        const bool isMissing = !value.problem.empty() && !value.isClosedToUs;
        // The IMSI is read before the agent changes its user, so what that user may read says
        // nothing about it.
        if (!value.isReadableByAgent && value.name != "IMSI") {
            add(findings, "identity-forbidden",
                userText(facts.agents) + " may not read " + where + " (" + value.name + ")",
                "give it the right: chmod or chown the object below /pps");
        } else if (isMissing && value.name == "IMSI") {
            warn(findings, "no-imsi",
                 "the " + value.name + " is unknown (" + where + "): " + value.problem,
                 "without it a change of the SIM is not noticed; set it, then restart the agent");
        } else if (isMissing) {
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

void judgeAllowedSenders(const Configuration& configuration, Findings& findings) {
    const NetworkList list = parseNetworks(settingOf(configuration, "allowed-senders"));
    if (list.networks.empty() && !list.isEmpty()) {
        add(findings, "allowed-senders", "allowed-senders: no entry is an address: nobody may push",
            "list addresses and networks, such as 192.0.2.7 or 10.0.0.0/8, or leave the value "
            "empty, then restart the agent");
    }
    for (const std::string& entry : list.badEntries) {
        warn(findings, "allowed-senders",
             "allowed-senders: '" + entry + "' is no address and no network: it lets nobody push",
             "put an address there (names are not looked up), or take it out, then restart the "
             "agent");
    }
}

void judgeConfiguration(const StatusFacts& facts, Findings& findings) {
    const Configuration& configuration = facts.configuration;
    if (configuration.error == EACCES) {
        return;  // the agent reads it as root
    }
    if (configuration.error == ENOENT) {
        warn(findings, "no-configuration",
             "there is no /etc/quilagent.conf: every key has its default", "install the file");
    } else if (!configuration.isFileRead) {
        add(findings, "configuration-unreadable",
            std::string("/etc/quilagent.conf cannot be read (") +
                std::strerror(configuration.error) + "): the agent starts with all defaults",
            "put a file there that root can read, then restart the agent");
    }
    for (const std::string& problem : configuration.problems) {
        add(findings, "configuration", "/etc/quilagent.conf: " + problem,
            "mend the line, then restart the agent");
    }
    judgeAllowedSenders(configuration, findings);
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

void judgeNewerFiles(const StatusFacts& facts, Findings& findings) {
    for (const std::string& path : facts.newerFiles) {
        warn(findings, "not-loaded",
             path + " was changed after the agent started, and is read only then",
             "restart the agent");
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

// What lies in an object belongs to somebody who does not watch the disk below it.
void judgeStore(const StatusFacts& facts, Findings& findings) {
    const StoreFacts& store = facts.store;
    const char* effect = "; what changes now, channels too, is lost, or not changed at all";
    if (!store.isKnown) {
        return;
    }
    if (store.isSlow) {
        add(findings, "store",
            std::string("the object service does not get an object written") + effect,
            "see what is wrong with the disk below its store (/var/lib/ppsd if not told "
            "otherwise)");
    } else if (!store.problem.empty()) {
        add(findings, "store",
            "the object service cannot write an object (" + store.problem + ")" + effect,
            "make room on the disk below its store (df /pps), or make the store writable; then let "
            "one application say registerToLaunch, which saves all sessions, before the agent is "
            "restarted");
    } else if (store.freeBytes < kLeastFreeBytes && store.totalBytes > 0) {
        warn(findings, "store-nearly-full",
             "the disk below the object service's store has " +
                 std::to_string(store.freeBytes / kKilobyte) + " KiB left",
             "make room there (df /pps): on a full disk no channel is saved");
    }
}

}  // namespace

Findings findProblems(const StatusFacts& facts) {
    Findings found;
    judgeRunning(facts, found);
    judgeIdentity(facts, found);
    judgeConfiguration(facts, found);
    judgeNewerFiles(facts, found);
    judgeRules(facts, found);
    judgeSaved(facts, found);
    judgeStore(facts, found);
    judgePorts(facts, found);
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
