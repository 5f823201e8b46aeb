// The folder and the object are made and opened up step by step; what fails shows in the log, and
// only what makes the object unusable ends the attempt.

#include "agent/clients/client_object.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "agent/support/log.hpp"
#include "agent/support/service_life.hpp"
#include "platform/root/root.hpp"

namespace {

constexpr const char* kFolder = "/pps/services/push/";
constexpr const char* kObjectName = "ipc";
constexpr const char* kServerSuffix = "?server";
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kObjectMode = 0666;  // any application may connect

std::atomic<int> g_clientDescriptor{-1};

// Shared by those who write; the one who replaces the connection holds it alone. Never destroyed,
// as other threads may outlive main.
std::shared_mutex& writeLock() {
    static auto* const lock = new std::shared_mutex();
    return *lock;
}

void makeFolder() {
    const std::string folder = platformPath(kFolder);
    flushLogEcho();  // the object service may be slow to answer, here and below
    // An existing folder is no error, and a missing one shows when the object is opened.
    static_cast<void>(mkdir(folder.c_str(), kFolderMode));
    if (chmod(folder.c_str(), kFolderMode) == 0) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "chmod %s done", kFolder);
    } else {
        QUIL_LOG(LOG_LEVEL_ERROR, "Error chmod %s errno[%d] error[%s]", kFolder, errno,
                 strerror(errno));
    }
}

// Says in words what stands where the object should be, if something does: a shell that wrote to it
// while the agent was away leaves an object of its own there, and no start gets past that.
void logObstacle(const std::string& path) {
    struct stat status {};
    if (stat(platformPath(path).c_str(), &status) == 0 && status.st_uid != geteuid()) {
        QUIL_LOG(
            LOG_LEVEL_ERROR,
            "clientIfInit: %s belongs to user %d and is in the way of user %d. Remove it, then "
            "start again.",
            path.c_str(), static_cast<int>(status.st_uid), static_cast<int>(geteuid()));
    }
}

}  // namespace

int clientIfInit() {
    QUIL_LOG(LOG_LEVEL_INFO, "clientIfInit - Opening PPS file as server.");
    makeFolder();
    const std::string path = std::string(kFolder) + kObjectName;
    const std::string realPath = platformPath(path);
    flushLogEcho();
    const int descriptor =
        open((realPath + kServerSuffix).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kObjectMode);
    g_clientDescriptor = descriptor;
    if (descriptor == -1) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Error opening %s for RW errno[%d] error[%s].", path.c_str(),
                 errno, strerror(errno));
        std::perror(path.c_str());
        logObstacle(path);
        return -1;
    }
    if (chmod(realPath.c_str(), kObjectMode) != 0) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Error chmod [%s] errno[%d] error[%s]", path.c_str(), errno,
                 strerror(errno));
        logObstacle(path);
        return -1;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "chmod [%s] done", path.c_str());
    QUIL_LOG(LOG_LEVEL_DEBUG, "clientIfInit - Done.");
    return descriptor;
}

int clientDescriptor() {
    return g_clientDescriptor;
}

bool reopenClientObject() {
    const std::string path = platformPath(std::string(kFolder) + kObjectName);
    static_cast<void>(mkdir(platformPath(kFolder).c_str(), kFolderMode));
    const int descriptor =
        open((path + kServerSuffix).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kObjectMode);
    if (descriptor == -1) {
        return false;
    }
    bool isOpen = chmod(path.c_str(), kObjectMode) == 0;
    if (isOpen) {
        // Nobody may be writing with an id of the old service when the new one begins to listen.
        const std::unique_lock lock(writeLock());
        isOpen = dup3(descriptor, g_clientDescriptor, O_CLOEXEC) != -1;
    }
    close(descriptor);
    return isOpen;
}

ssize_t writeToClients(const char* text, std::size_t length, int life) {
    const std::shared_lock lock(writeLock());
    if (life != serviceLife()) {
        errno = ESTALE;
        return -1;
    }
    return write(g_clientDescriptor, text, length);
}
