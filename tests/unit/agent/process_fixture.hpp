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

#include "tests/support/wait_until.hpp"

// A folder of the test's own that QUIL_ROOT names, gone at the end. Strangers may look into it, as
// the daemon does after it has dropped its user.
class ScratchRoot {
  public:
    ScratchRoot() {
        std::string pattern = std::filesystem::temp_directory_path() / "quil-process-XXXXXX";
        m_path = mkdtemp(pattern.data());
        chmod(m_path.c_str(), 0755);
        setenv("QUIL_ROOT", m_path.c_str(), 1);
    }
    ~ScratchRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    // Where "/etc/..." or "/pps/..." lies below the root.
    std::string at(const std::string& absolutePath) const { return m_path + absolutePath; }

    void write(const std::string& absolutePath, const std::string& bytes) const {
        const std::filesystem::path file = at(absolutePath);
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << bytes;
    }
    void makeFolder(const std::string& absolutePath) const {
        std::filesystem::create_directories(at(absolutePath));
    }
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

  private:
    std::string m_path;
};

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

// Number of open descriptors of this process.
inline int countDescriptors() {
    int count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        count += fcntl(descriptor, F_GETFD) == -1 ? 0 : 1;
    }
    return count;
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
