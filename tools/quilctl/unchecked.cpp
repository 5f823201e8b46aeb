#include "tools/quilctl/unchecked.hpp"

#include <algorithm>
#include <cerrno>

namespace {

using List = std::vector<Unchecked>;

constexpr const char* kRoot = "root";

void listHost(const StatusFacts& facts, List& list) {
    if (facts.configuration.error == EACCES) {
        list.push_back({"configuration", "the configuration, which you may not read", kRoot});
    }
    if (facts.areRulesClosed) {
        list.push_back({"rules", "the rules, which you may not read", kRoot});
    }
    if (facts.strangers > 0) {
        list.push_back({"agent-root",
                        "whether " + std::to_string(facts.strangers) +
                            " more of the agents that run belong to this QUIL_ROOT",
                        kRoot});
    }
    if (!facts.agents.empty() && !facts.ports.areAllDescriptorsSeen) {
        list.push_back({"descriptors",
                        "ports that the agent cannot watch, and ports that another process of its "
                        "user holds",
                        kRoot});
    }
}

void listObjects(const StatusFacts& facts, List& list) {
    const bool isAnyClosed =
        std::any_of(facts.identity.begin(), facts.identity.end(),
                    [](const IdentityValue& value) { return value.isClosedToUs; });
    if (isAnyClosed) {
        std::string names;
        for (const IdentityValue& value : facts.identity) {
            names += value.isClosedToUs ? (names.empty() ? "" : ", ") + value.name : "";
        }
        list.push_back({"identity", "the device's " + names + ", which you may not read", kRoot});
    }
    if (facts.saved.exists && !facts.saved.isReadable) {
        list.push_back({"sessions", "the saved sessions, their ports and who waits there",
                        "root, or the agent's user"});
    }
    if (facts.store.isKnown && !facts.store.isTried) {
        list.push_back({"store", "whether the object service can write to its disk",
                        "root, or the owner of /pps"});
    }
    if (facts.probe.outcome == ProbeResult::Refused) {
        list.push_back({"probe", "whether the agent answers: " + facts.probe.problem,
                        "the object service to take a request of yours"});
    } else if (facts.probe.outcome == ProbeResult::NotTried && !facts.agents.empty() &&
               facts.isObjectServed) {
        list.push_back({"probe", "whether the agent answers",
                        "the right to read and write /pps/services/push/ipc"});
    }
}

}  // namespace

std::vector<Unchecked> findUnchecked(const StatusFacts& facts) {
    List list;
    listHost(facts, list);
    if (facts.service == ServiceState::Mounted) {
        listObjects(facts, list);
    } else if (facts.service == ServiceState::Silent) {
        list.push_back({"objects",
                        "identity, saved sessions and everything else in the object "
                        "service",
                        "an object service that answers"});
    }
    return list;
}
