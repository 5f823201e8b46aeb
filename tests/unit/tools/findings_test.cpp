// What is wrong, judged from facts: a sound system has no findings, and each fault has its own.

#include "tools/quilctl/findings.hpp"

#include <gtest/gtest.h>

#include <cerrno>

#include "tools/quilctl/unchecked.hpp"

namespace {

SavedSession session(const std::string& appId, int port) {
    SavedSession saved;
    saved.appId = appId;
    saved.ppgUrl = "http://x";
    saved.port = port;
    saved.isListening = true;
    saved.listener = 44;
    return saved;
}

class FindingsTest : public ::testing::Test {
  protected:
    FindingsTest() {
        m_facts.service = ServiceState::Mounted;
        m_facts.agents = {{7, 44, 44, {}}};
        m_facts.isObjectServed = true;
        m_facts.objectMode = 0666;
        m_facts.objectOwner = 44;
        m_facts.ports.areAllDescriptorsSeen = true;
        m_facts.store = {true, 1 << 30, 1 << 30, true, false, ""};
        m_facts.probe.outcome = ProbeResult::Answered;
        m_facts.configuration.isFileRead = true;
        m_facts.configuration.settings = {
            {"proxy-host", "127.0.0.1", "default"},     {"proxy-port", "0", "line 1"},
            {"listen-address", "127.0.0.1", "default"}, {"allowed-senders", "", "default"},
            {"push-timeout", "30", "default"},          {"http-timeout", "60", "line 2"}};
        m_facts.isProxyLocal = true;
        for (const char* name : {"PIN", "model", "OS version", "IMSI"}) {
            m_facts.identity.push_back({name, "/pps/x", name, "1", "", true, false});
        }
        m_facts.saved = {true, true, true, 200, "1", 44, true, {}};
        m_facts.saved.sessions.push_back(session("com.app", 4400));
    }

    // The names of what could not be looked at.
    std::string unchecked() {
        std::string names;
        for (const Unchecked& unchecked : findUnchecked(m_facts)) {
            EXPECT_FALSE(unchecked.words.empty()) << unchecked.name;
            EXPECT_FALSE(unchecked.needs.empty()) << unchecked.name;
            names += (names.empty() ? "" : " ") + unchecked.name;
        }
        return names;
    }

    // The names of the findings, "?" behind a warning.
    std::string found() {
        std::string names;
        for (const Finding& finding : findProblems(m_facts)) {
            EXPECT_FALSE(finding.words.empty()) << finding.name;
            EXPECT_FALSE(finding.next.empty()) << finding.name;
            names += (names.empty() ? "" : " ") + finding.name + (finding.isWarning ? "?" : "");
        }
        return names;
    }

    void set(const std::string& key, const std::string& value) {
        for (Setting& setting : m_facts.configuration.settings) {
            if (setting.key == key) {
                setting.value = value;
            }
        }
    }

    StatusFacts m_facts;
};

}  // namespace

TEST_F(FindingsTest, SoundSystemHasNone) {
    EXPECT_EQ(found(), "");
    EXPECT_EQ(unchecked(), "");
}

TEST_F(FindingsTest, ObjectServiceThatHangsHidesEverythingInIt) {
    m_facts.service = ServiceState::Silent;
    EXPECT_EQ(found(), "service-hangs");
    EXPECT_EQ(findProblems(m_facts)[0].words.find("stopped"), std::string::npos);
    m_facts.stoppedService = 12;
    EXPECT_NE(findProblems(m_facts)[0].words.find("process 12, was stopped"), std::string::npos);
    EXPECT_EQ(findProblems(m_facts)[0].next, "let it run on: kill -CONT 12");
    EXPECT_EQ(unchecked(), "objects");
}

TEST_F(FindingsTest, AgentThatDoesNotAnswer) {
    m_facts.probe.outcome = ProbeResult::Silent;
    EXPECT_EQ(found(), "agent-hangs");
    m_facts.probe.outcome = ProbeResult::HungUp;
    EXPECT_EQ(found(), "agent-hangs");
    m_facts.probe.outcome = ProbeResult::Abandoned;
    EXPECT_EQ(found(), "service-hangs");
    m_facts.probe.outcome = ProbeResult::Silent;
    m_facts.agents[0].isStopped = true;
    EXPECT_EQ(found(), "agent-stopped");
}

TEST_F(FindingsTest, AgentThatCouldNotBeAskedIsSaidNotToHaveBeen) {
    m_facts.probe = {ProbeResult::Refused, "Too many open files"};
    EXPECT_EQ(found(), "");
    EXPECT_EQ(unchecked(), "probe");
    m_facts.probe = {ProbeResult::NotTried, ""};
    EXPECT_EQ(unchecked(), "probe");
}

TEST_F(FindingsTest, RightsOfThePushObject) {
    m_facts.objectMode = 0660;
    EXPECT_EQ(found(), "object-mode");
    EXPECT_NE(findProblems(m_facts)[0].words.find("mode 0660"), std::string::npos);
    m_facts.objectMode = 0777;
    m_facts.closedFolders = {"/pps/services/push"};
    EXPECT_EQ(found(), "folder-mode");
    m_facts.closedFolders.clear();
    m_facts.objectOwner = 1000;
    EXPECT_EQ(found(), "object-owner?");
}

TEST_F(FindingsTest, StoreThatCannotBeWrittenOrIsNearlyFull) {
    m_facts.store.problem = "No space left on device";
    EXPECT_EQ(found(), "store");
    m_facts.store.problem = "";
    m_facts.store.isSlow = true;
    EXPECT_EQ(found(), "store");
    m_facts.store.isSlow = false;
    m_facts.store.freeBytes = 1000;
    EXPECT_EQ(found(), "store-nearly-full?");
    m_facts.store.totalBytes = 0;
    EXPECT_EQ(found(), "") << "a disk that does not tell";
    m_facts.store.isTried = false;
    EXPECT_EQ(unchecked(), "store");
}

TEST_F(FindingsTest, PushesThatWait) {
    m_facts.saved.sessions[0].heldConnections = 3;
    EXPECT_EQ(found(), "") << "they may be answered any moment";
    m_facts.saved.sessions[0].waitingConnections = 3;
    EXPECT_EQ(found(), "pushes-wait?");
    EXPECT_EQ(findProblems(m_facts)[0].words,
              "3 pushes wait for an answer on port 4400 of com.app");
    m_facts.saved.sessions[0].unaccepted = 2;
    EXPECT_EQ(findProblems(m_facts)[0].words,
              "3 pushes wait for an answer on port 4400 of com.app, 2 of them not taken off the "
              "port yet");
}

TEST_F(FindingsTest, PushesWhoseSendersHaveGone) {
    m_facts.saved.sessions[0].heldConnections = 3;
    m_facts.saved.sessions[0].waitingConnections = 3;
    m_facts.saved.sessions[0].goneSenders = 2;
    ASSERT_EQ(found(), "pushes-wait? senders-gone?");
    EXPECT_EQ(findProblems(m_facts)[0].words, "1 push waits for an answer on port 4400 of com.app");
    EXPECT_EQ(findProblems(m_facts)[1].words,
              "the senders of 2 pushes on port 4400 of com.app have gone");
    m_facts.saved.sessions[0].goneSenders = 3;
    EXPECT_EQ(found(), "senders-gone?");
}

TEST_F(FindingsTest, WhatThisUserMayNotReadIsNotJudged) {
    m_facts.configuration.isFileRead = false;
    m_facts.configuration.error = EACCES;
    set("proxy-port", "287");
    set("http-timeout", "0");
    m_facts.areRulesClosed = true;
    m_facts.ports.areAllDescriptorsSeen = false;
    m_facts.strangers = 1;
    m_facts.identity[0].problem = "Permission denied";
    m_facts.identity[0].isClosedToUs = true;
    m_facts.saved.isReadable = false;
    EXPECT_EQ(found(), "");
    EXPECT_EQ(unchecked(), "configuration rules agent-root descriptors identity sessions");
}

TEST_F(FindingsTest, ObjectServiceMissingOrDead) {
    m_facts.service = ServiceState::Absent;
    EXPECT_EQ(found(), "no-mount");
    m_facts.service = ServiceState::Dead;
    EXPECT_EQ(found(), "mount-dead");
}

TEST_F(FindingsTest, AgentMissing) {
    m_facts.agents.clear();
    m_facts.isObjectServed = false;
    EXPECT_EQ(found(), "no-agent");
    m_facts.isObjectServed = true;
    EXPECT_EQ(found(), "no-agent object-in-the-way");
}

TEST_F(FindingsTest, SeveralAgents) {
    m_facts.agents.push_back(m_facts.agents.front());
    EXPECT_EQ(found(), "many-agents?");
}

TEST_F(FindingsTest, OrdinaryObjectInThePlaceOfTheAgents) {
    m_facts.isObjectServed = false;
    m_facts.isObjectOrdinary = true;
    EXPECT_EQ(found(), "object-in-the-way");
    m_facts.agents.clear();
    EXPECT_EQ(found(), "no-agent object-in-the-way");
}

TEST_F(FindingsTest, OnePortOfTwoSessions) {
    m_facts.saved.sessions.push_back(session("com.other", 4401));
    EXPECT_EQ(found(), "");
    m_facts.saved.sessions[1].port = 4400;
    EXPECT_EQ(found(), "port-shared");
    EXPECT_EQ(findProblems(m_facts)[0].words.find(
                  "port 4400 was given to com.app and com.other: one of them gets"),
              0U)
        << findProblems(m_facts)[0].words;
    m_facts.saved.sessions.push_back(session("com.third", 4400));
    EXPECT_EQ(found(), "port-shared");
    for (SavedSession& session : m_facts.saved.sessions) {
        session.port = -1;
    }
    m_facts.agents.clear();
    EXPECT_EQ(found(), "no-agent object-in-the-way");
}

TEST_F(FindingsTest, PushObjectNotServedOrForbidden) {
    m_facts.isObjectServed = false;
    EXPECT_EQ(found(), "not-served");
    m_facts.objectProblem = "Permission denied";
    EXPECT_EQ(found(), "object-forbidden");
}

TEST_F(FindingsTest, IdentityMissing) {
    for (IdentityValue& value : m_facts.identity) {
        value.value = "";
        value.problem = "missing";
    }
    EXPECT_EQ(found(), "no-pin no-identity no-identity no-imsi?");
}

TEST_F(FindingsTest, IdentityForbiddenToTheAgent) {
    m_facts.identity[0].isReadableByAgent = false;
    EXPECT_EQ(found(), "identity-forbidden");
}

TEST_F(FindingsTest, ImsiIsReadBeforeTheAgentChangesItsUser) {
    m_facts.identity[3].isReadableByAgent = false;
    EXPECT_EQ(found(), "");
}

TEST_F(FindingsTest, SimChanged) {
    m_facts.saved.imsi = "2";
    EXPECT_EQ(found(), "sim-changed?");
}

TEST_F(FindingsTest, ConfigurationMissingOrOdd) {
    m_facts.configuration.isFileRead = false;
    m_facts.configuration.error = ENOENT;
    m_facts.configuration.problems = {"line 1 is odd"};
    EXPECT_EQ(found(), "configuration no-configuration?");
    m_facts.configuration.problems.clear();
    m_facts.configuration.error = EISDIR;
    EXPECT_EQ(found(), "configuration-unreadable");
}

TEST_F(FindingsTest, ProxyInTheWay) {
    set("proxy-port", "287");
    EXPECT_EQ(found(), "proxy");
    m_facts.isProxyListening = true;
    EXPECT_EQ(found(), "");
    m_facts.isProxyListening = false;
    m_facts.isProxyLocal = false;
    EXPECT_EQ(found(), "");  // somebody else's machine is not asked
}

TEST_F(FindingsTest, ListenAddressOfAnotherMachine) {
    m_facts.isListenAddressOurs = false;
    EXPECT_EQ(found(), "listen-address");
}

TEST_F(FindingsTest, AllowedSendersThatAreNoAddresses) {
    set("allowed-senders", "127.0.0.2, 10.0.0.0/8");
    EXPECT_EQ(found(), "");
    set("allowed-senders", "127.0.0.2, 10.0.0.0/8 foo 10.0.0.0/33");
    ASSERT_EQ(found(), "allowed-senders? allowed-senders?");
    EXPECT_EQ(findProblems(m_facts)[0].words,
              "allowed-senders: 'foo' is no address and no network: it lets nobody push");
    set("allowed-senders", "foo");
    ASSERT_EQ(found(), "allowed-senders allowed-senders?");
    EXPECT_EQ(findProblems(m_facts)[0].words,
              "allowed-senders: no entry is an address: nobody may push");
}

TEST_F(FindingsTest, TimeoutsOff) {
    set("http-timeout", "0");
    set("push-timeout", "0");
    EXPECT_EQ(found(), "http-timeout? push-timeout?");
}

TEST_F(FindingsTest, SavedSessionsForbiddenTooLongOrDamaged) {
    m_facts.saved.isWritableByAgent = false;
    EXPECT_EQ(found(), "saved-forbidden");
    m_facts.saved.isWritableByAgent = true;
    m_facts.saved.bytes = 15360;
    EXPECT_EQ(found(), "saved-too-long");
    m_facts.saved.bytes = 15359;
    EXPECT_EQ(found(), "saved-nearly-full?");
    m_facts.saved.bytes = 100;
    m_facts.saved.isSound = false;
    EXPECT_EQ(found(), "saved-damaged");
}

TEST_F(FindingsTest, NumberThatIsNotAPort) {
    m_facts.saved.sessions[0].isListening = false;
    m_facts.saved.sessions[0].port = 65535;
    EXPECT_EQ(found(), "port-silent");
    m_facts.saved.sessions[0].port = 65536;
    m_facts.saved.sessions.push_back(m_facts.saved.sessions[0]);
    m_facts.saved.sessions[1].appId = "com.other";
    EXPECT_EQ(found(), "port-invalid port-invalid");
    EXPECT_EQ(findProblems(m_facts)[0].words,
              "port 65536 of com.app is not a port: the push server has to correct it");
}

TEST_F(FindingsTest, PortBeyondWhatTheAgentWatches) {
    m_facts.ports.agentPorts = {{4400, 255, "com.app"}};
    EXPECT_EQ(found(), "");
    m_facts.ports.agentPorts = {{4400, 256, "com.app"}, {4401, 300, ""}};
    EXPECT_EQ(found(), "port-unwatched port-unwatched");
    const std::vector<Finding> findings = findProblems(m_facts);
    ASSERT_EQ(findings.size(), 2U);
    EXPECT_EQ(findings[0].words.substr(0, 42), "port 4400 of com.app is on descriptor 256 ");
    EXPECT_EQ(findings[1].words.substr(0, 31), "port 4401 is on descriptor 300 ") << "nobody's";
}

TEST_F(FindingsTest, PortSilentOrTaken) {
    m_facts.saved.sessions[0].listener = 1000;
    EXPECT_EQ(found(), "port-taken");
    m_facts.saved.sessions[0].listener = 44;
    m_facts.saved.sessions[0].isForeign = true;
    m_facts.saved.sessions[0].holder = "nc, process 12";
    EXPECT_EQ(found(), "port-taken");
    EXPECT_NE(findProblems(m_facts)[0].words.find("(nc, process 12) listens on port 4400"),
              std::string::npos);
    m_facts.saved.sessions[0].isListening = false;
    EXPECT_EQ(found(), "port-silent");
    m_facts.agents.clear();
    m_facts.isObjectServed = false;
    EXPECT_EQ(found(), "no-agent");  // without an agent nobody ought to listen
}
