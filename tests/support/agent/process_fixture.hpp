// What the tests of the process itself share: a scratch root, its files, and the echo of the log.

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/agent/agent_root.hpp"
#include "tests/support/descriptors.hpp"
#include "tests/support/wait_until.hpp"

// The agent's root with what the whole process needs in it.
class ProcessRoot : public AgentRoot {
  public:
    // The folders that the agent needs, a client object that never has a request, and two device
    // objects.
    void makeQuietPlatform() const {
        makeFolder("/pps/services/push");
        write("/pps/services/push/ipc", "");
        mkfifo(at("/pps/services/push/ipc?server").c_str(), 0666);
        makeDevice();
    }
    // The same, but opening the client object fails, so that the agent ends by itself.
    void makePlatformWithoutClientObject() const {
        makeFolder("/pps/services/push/ipc?server");
        makeDevice();
    }
    void makeDevice() const {
        write("/pps/system/nvram/deviceinfo", "@deviceinfo\nHardwareID::Model 9\nPIN::0x2a3b\n");
        write("/pps/services/deviceproperties", "@deviceproperties\nscmbundle::10.3\n");
        write("/pps/services/cellular/uicc/card0/status_private",
              "@status_private\nimsi::302720000000001\n");
    }
};

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

// Everything that goes to standard output between the construction and take().
class CapturedOutput {
  public:
    CapturedOutput() : m_file(std::tmpfile()) {
        std::fflush(stdout);
        m_original = dup(STDOUT_FILENO);
        dup2(fileno(m_file), STDOUT_FILENO);
    }
    ~CapturedOutput() {
        restore();
        std::fclose(m_file);
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    // What has really been written so far, without flushing what is held back.
    std::string written() const {
        std::string bytes(65536, '\0');
        const ssize_t count = pread(fileno(m_file), bytes.data(), bytes.size(), 0);
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }
    std::string take() {
        std::fflush(stdout);
        const std::string bytes = written();
        restore();
        return bytes;
    }

  private:
    void restore() {
        if (m_original != -1) {
            std::fflush(stdout);
            dup2(m_original, STDOUT_FILENO);
            close(m_original);
            m_original = -1;
        }
    }

    std::FILE* m_file;
    int m_original = -1;
};
