// The agent's surroundings within a fuzzer: a scratch folder as its root, and no address on which a
// port could be opened, so that no session ever listens.

#pragma once

#include <string>

#include "tests/support/agent/agent_root.hpp"

class AgentFolder : public AgentRoot {
  public:
    // `configuration` stands in front of the lines that this needs.
    explicit AgentFolder(const std::string& configuration = "") {
        write("/etc/quilagent.conf", configuration + "listen-address nowhere\n");
        write("/pps/system/nvram/deviceinfo", "@deviceinfo\nHardwareID::0x87\nPIN::0x2a00\n");
        write("/pps/services/deviceproperties", "@deviceproperties\nscmbundle::10.3\n");
    }
};
