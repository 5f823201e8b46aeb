// The agent's root within a unit test: QUIL_ROOT of this process is a scratch folder, no proxy of
// the environment is used, and writing to a peer that is gone is an error and no signal, as in the
// agent.

#pragma once

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/scratch_root.hpp"

// Make one before the first singleton: that reads the root when it is first asked for. Paths are
// the agent's own, "/etc/..." or "/pps/...".
class AgentRoot : public ScratchRoot {
  public:
    AgentRoot() {
        setenv("QUIL_ROOT", ScratchRoot::path().c_str(), 1);
        for (const char* variable : {"http_proxy", "https_proxy", "all_proxy", "no_proxy",
                                     "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"}) {
            unsetenv(variable);
        }
        std::signal(SIGPIPE, SIG_IGN);
    }

    std::string at(const std::string& path) const { return ScratchRoot::path(path); }

    void makeFolder(const std::string& path) const {
        std::filesystem::create_directories(at(path));
    }
    // Writes a file, and the folders above it.
    void write(const std::string& path, const std::string& bytes) const {
        const std::filesystem::path file = at(path);
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << bytes;
    }
    std::string read(const std::string& path) const {
        std::ifstream file(at(path), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
};
