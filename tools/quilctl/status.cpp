#include "tools/quilctl/status.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/addresses/networks.hpp"
#include "tools/common/terminal.hpp"
#include "tools/common/time_limit.hpp"
#include "tools/quilctl/findings.hpp"
#include "tools/quilctl/output.hpp"
#include "tools/quilctl/status_facts.hpp"
#include "tools/quilctl/unchecked.hpp"

namespace {

constexpr std::size_t kIndent = 17;

// "title            text", with the text broken into lines.
void row(const Style& style, const std::string& title, const std::string& text, bool isGood) {
    std::string left = title;
    left.resize(kIndent, ' ');
    const std::string body = wrapped(visible(text), kIndent, kIndent);
    std::printf("%s%s\n", style.strong(left).c_str(), (isGood ? body : style.bad(body)).c_str());
}

void showAgent(const Style& style, const StatusFacts& facts) {
    if (facts.agents.empty()) {
        row(style, "agent", "does not run", false);
    }
    for (const AgentProcess& agent : facts.agents) {
        std::string text =
            "process " + std::to_string(agent.pid) + ", user " + userWithName(agent.user);
        text += agent.isStopped ? ", STOPPED by a signal" : "";
        if (facts.service != ServiceState::Silent) {
            text += facts.isObjectServed ? ", serves" : ", does not serve";
            text += " /pps/services/push/ipc";
        }
        row(style, "agent", text, facts.isObjectServed && !agent.isStopped);
    }
}

bool isWatched(const StatusFacts& facts, const SavedSession& session) {
    return std::none_of(
        facts.ports.agentPorts.begin(), facts.ports.agentPorts.end(), [&](const AgentPort& port) {
            return port.port == session.port && port.descriptor > kHighestWatchedDescriptor;
        });
}

std::string sessionText(const SavedSession& session, bool isWatched) {
    std::string text = session.appId + ", port " + std::to_string(session.port) + ", " +
                       (session.isListening ? "listening" : "NOT listening") +
                       (isWatched ? "" : ", NOT watched");
    text += session.heldConnections == 0 ? ""
                                         : ", " + std::to_string(session.heldConnections) +
                                               " unanswered (their age: quilctl trace)";
    text += ", " + session.ppgUrl;
    return text + (session.launchString.empty() ? "" : ", launches " + session.launchString);
}

void showSessions(const Style& style, const StatusFacts& facts) {
    const SavedObject& saved = facts.saved;
    row(style, "saved sessions",
        !saved.exists ? "none"
        : !saved.isReadable
            ? "you may not read /pps/services/push/quilagent"
            : std::to_string(saved.sessions.size()) + ", " + std::to_string(saved.bytes) +
                  " of the " + std::to_string(kLoadableBytes) + " bytes that a start loads",
        !saved.exists || saved.isReadable);
    for (const SavedSession& session : saved.sessions) {
        const bool watched = isWatched(facts, session);
        row(style, "", sessionText(session, watched), session.isListening && watched);
    }
}

// Only root and the agent's user can see them; for others the row would say nothing.
void showClients(const Style& style, const StatusFacts& facts) {
    if (!facts.mayListClients) {
        return;
    }
    row(style, "applications", std::to_string(facts.clients.size()) + " connected", true);
    for (const ConnectedClient& client : facts.clients) {
        row(style, "",
            (client.program.empty() ? "?" : client.program) + ", process " +
                std::to_string(client.process) + ", user " + userWithName(client.user) + ", @ipc." +
                std::to_string(client.id),
            true);
    }
}

constexpr const char* kAllowedSenders = "allowed-senders";

std::vector<std::string> sendersThatCount(const NetworkList& list) {
    std::vector<std::string> senders;
    for (const Network& network : list.networks) {
        senders.push_back(network.text);
    }
    return senders;
}

// Where a value comes from, and what of it counts where that is not all.
std::string sourceText(const Setting& setting) {
    const NetworkList list =
        parseNetworks(setting.key == kAllowedSenders ? setting.value : std::string());
    if (list.badEntries.empty()) {
        return setting.source;
    }
    std::string senders;
    for (const std::string& sender : sendersThatCount(list)) {
        senders += (senders.empty() ? "" : ", ") + sender;
    }
    return setting.source + "; what counts: " + (senders.empty() ? "nothing" : senders);
}

void showForPeople(const StatusFacts& facts) {
    const Style style(stdout);
    const bool isMounted = facts.service == ServiceState::Mounted;
    row(style, "object service", isMounted ? "mounted on /pps" : describeState(facts.service),
        isMounted);
    showAgent(style, facts);
    for (const IdentityValue& value : facts.identity) {
        row(style, value.name, value.problem.empty() ? value.value : value.problem,
            value.problem.empty());
    }
    row(style, "configuration",
        facts.configuration.isFileRead ? "/etc/quilagent.conf"
                                       : "/etc/quilagent.conf cannot be read: " +
                                             std::string(std::strerror(facts.configuration.error)),
        facts.configuration.isFileRead);
    for (const Setting& setting : facts.configuration.settings) {
        std::string left = "  " + setting.key;
        left.resize(22, ' ');
        std::printf("%s%s %s\n", left.c_str(), visible(setting.value).c_str(),
                    style.faint("(" + visible(sourceText(setting)) + ")").c_str());
    }
    if (isMounted) {
        showClients(style, facts);
        showSessions(style, facts);
    }
}

nlohmann::ordered_json asJson(const StatusFacts& facts) {
    nlohmann::ordered_json object = {{"objectService", facts.service == ServiceState::Mounted},
                                     {"hangs", facts.service == ServiceState::Silent},
                                     {"served", facts.isObjectServed}};
    object["agents"] = nlohmann::ordered_json::array();
    for (const AgentProcess& agent : facts.agents) {
        object["agents"].push_back(
            {{"pid", agent.pid}, {"user", agent.user}, {"stopped", agent.isStopped}});
    }
    for (const IdentityValue& value : facts.identity) {
        object["identity"][value.name] = value.value;
    }
    for (const Setting& setting : facts.configuration.settings) {
        object["configuration"][setting.key] = {{"value", setting.value},
                                                {"source", setting.source}};
        if (setting.key == kAllowedSenders) {
            object["configuration"][setting.key]["counts"] =
                sendersThatCount(parseNetworks(setting.value));
        }
    }
    if (facts.mayListClients) {
        object["clients"] = nlohmann::ordered_json::array();
        for (const ConnectedClient& client : facts.clients) {
            object["clients"].push_back({{"id", client.id},
                                         {"user", client.user},
                                         {"pid", client.process},
                                         {"program", client.program}});
        }
    }
    object["savedBytes"] = facts.saved.bytes;
    object["loadableBytes"] = kLoadableBytes;
    object["sessions"] = nlohmann::ordered_json::array();
    for (const SavedSession& session : facts.saved.sessions) {
        object["sessions"].push_back({{"app", session.appId},
                                      {"ppgUrl", session.ppgUrl},
                                      {"launchString", session.launchString},
                                      {"port", session.port},
                                      {"listening", session.isListening},
                                      {"watched", isWatched(facts, session)},
                                      {"unanswered", session.heldConnections}});
    }
    return object;
}

void showFinding(const Style& style, const Finding& finding) {
    const std::string kind = finding.isWarning ? "warning: " : "problem: ";
    std::printf("%s%s\n", (finding.isWarning ? style.warning(kind) : style.bad(kind)).c_str(),
                wrapped(visible(finding.words), 9, 9).c_str());
    std::printf("   next: %s\n", wrapped(visible(finding.next), 9, 9).c_str());
}

void showUnchecked(const Style& style, const Unchecked& unchecked) {
    std::printf("%s%s\n", style.warning("not checked: ").c_str(),
                wrapped(visible(unchecked.words + "; needs " + unchecked.needs), 13, 9).c_str());
}

// Everything that is waited for has a limit of its own; this is against what nobody thought of.
void limitAll(double timeoutSeconds) {
    constexpr double kSteps = 3;
    constexpr double kMoreSeconds = 10;
    limitTime(kSteps * timeoutSeconds + kMoreSeconds, "quilctl",
              "status: it took too long to look at this system");
}

}  // namespace

ExitStatus showStatus(bool json, double timeoutSeconds) {
    limitAll(timeoutSeconds);
    const StatusFacts facts = collectFacts(false, asMilliseconds(timeoutSeconds));
    if (json) {
        printJson(asJson(facts));
    } else {
        showForPeople(facts);
    }
    if (facts.service == ServiceState::Silent) {
        return kTimeout;
    }
    const bool isThere = facts.service == ServiceState::Mounted && !facts.agents.empty();
    return isThere ? kDone : kNotThere;
}

ExitStatus checkStatus(bool json, double timeoutSeconds) {
    limitAll(timeoutSeconds);
    const StatusFacts facts = collectFacts(true, asMilliseconds(timeoutSeconds));
    const std::vector<Finding> findings = findProblems(facts);
    const Style style(stdout);
    ExitStatus status = kDone;
    for (const Finding& finding : findings) {
        status = finding.isWarning ? status : kRefused;
        if (json) {
            printJson({{"finding", finding.name},
                       {"severity", finding.isWarning ? "warning" : "problem"},
                       {"words", finding.words},
                       {"next", finding.next}});
        } else {
            showFinding(style, finding);
        }
    }
    for (const Unchecked& unchecked : findUnchecked(facts)) {
        if (json) {
            printJson({{"unchecked", unchecked.name},
                       {"words", unchecked.words},
                       {"needs", unchecked.needs}});
        } else {
            showUnchecked(style, unchecked);
        }
    }
    if (!json && findings.empty()) {
        std::printf("%s\n", style.good("nothing is wrong that can be seen from here").c_str());
    }
    return status;
}
