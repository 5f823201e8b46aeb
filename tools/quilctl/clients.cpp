#include "tools/quilctl/clients.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "tools/common/terminal.hpp"
#include "tools/common/time_limit.hpp"
#include "tools/quilctl/output.hpp"
#include "tools/quilctl/proc.hpp"
#include "tools/quilctl/service_facts.hpp"
#include "tools/quilctl/session_owners.hpp"

namespace {

ExitStatus fail(ExitStatus status, const std::string& words, const std::string& next) {
    const Style style(stderr);
    std::fprintf(stderr, "%s %s\n   next: %s\n", style.bad("quilctl:").c_str(),
                 wrapped(visible("clients: " + words), 9, 9).c_str(), wrapped(next, 9, 9).c_str());
    return status;
}

// kDone when the list is there.
ExitStatus judge(const ServiceFacts& facts) {
    if (facts.service == ServiceState::Silent) {
        return fail(kTimeout, describeState(facts.service), nextStepFor(facts.service));
    }
    if (facts.service != ServiceState::Mounted) {
        return fail(kNotThere, describeState(facts.service), nextStepFor(facts.service));
    }
    if (facts.mayListClients) {
        return kDone;
    }
    if (!facts.isObjectServed && facts.objectProblem.empty()) {
        return fail(kNotThere, "no agent serves /pps/services/push/ipc",
                    "see what is wrong: quilctl status --check");
    }
    return fail(kRefused, "only root and the agent's user may see who is connected",
                "run it as one of them");
}

std::string textOf(const ConnectedClient& client, const std::set<std::string>& apps) {
    std::string text = "@ipc." + std::to_string(client.id) + "  process " +
                       std::to_string(client.process) + " (" +
                       (client.program.empty() ? "gone, or not to be seen" : client.program) +
                       "), user " + userWithName(client.user);
    for (const std::string& app : apps) {
        text += ", " + app;
    }
    return visible(text);
}

nlohmann::ordered_json asJson(const ConnectedClient& client) {
    return {{"id", client.id},
            {"pid", client.process},
            {"program", client.program},
            {"user", client.user},
            {"group", client.group}};
}

}  // namespace

ExitStatus showClients(const std::string& log, bool json, double timeoutSeconds) {
    SessionOwners owners;
    if (log == "-") {
        owners.read(std::cin);
    } else if (!log.empty()) {
        std::ifstream file(log);
        if (!file) {
            return fail(kNotThere, "cannot read " + log + ": " + std::strerror(errno),
                        "name a file that holds what quilagent wrote");
        }
        owners.read(file);
    }
    constexpr double kMoreSeconds = 10;
    limitTime(timeoutSeconds + kMoreSeconds, "quilctl", "clients: it took too long");
    const ServiceFacts facts =
        readServiceFacts(findProcesses("quilagent"), false, asMilliseconds(timeoutSeconds));
    const ExitStatus status = judge(facts);
    if (status != kDone) {
        return status;
    }
    for (const ConnectedClient& client : facts.clients) {
        const std::set<std::string> apps =
            owners.applicationsOf("@ipc." + std::to_string(client.id));
        if (json) {
            nlohmann::ordered_json object = asJson(client);
            if (!log.empty()) {
                object["apps"] = apps;
            }
            printJson(object);
        } else {
            std::printf("%s\n", textOf(client, apps).c_str());
        }
    }
    if (facts.clients.empty() && !json) {
        std::printf("nobody is connected\n");
    }
    return kDone;
}
