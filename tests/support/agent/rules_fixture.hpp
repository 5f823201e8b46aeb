// An agent with rules, users known to the name service, and connections of theirs.

#pragma once

#include <string>

#include "agent/requests/permissions.hpp"
#include "tests/support/agent/clients_fixture.hpp"
#include "tests/support/fake_accounts.hpp"

class RulesTest : public ClientsTest {
  protected:
    static constexpr std::uint32_t kAnn = 1000;
    static constexpr std::uint32_t kBob = 1001;
    static constexpr std::uint32_t kUsers = 100;
    static constexpr std::uint32_t kNameless = 4321;

    RulesTest() {
        addFakeUser("root", 0, 0);
        addFakeUser("ann", kAnn, kUsers);
        addFakeUser("bob", kBob, kUsers);
        addFakeGroup("users", kUsers);
        addFakeGroup("staff", 27, {"bob"});
    }

    // The rules of an agent that starts with this file.
    QuilPermissions& withRules(const std::string& lines) const {
        writeFile("/etc/quilagent.rules", lines);
        return withConfiguration("rules /etc/quilagent.rules\n");
    }
    QuilPermissions& withConfiguration(const std::string& lines) const {
        writeFile("/etc/quilagent.conf", lines);
        return *QuilPermissions::getInstance();
    }
};
