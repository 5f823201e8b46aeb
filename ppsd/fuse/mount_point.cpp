#include "ppsd/fuse/mount_point.hpp"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

#include "platform/root/root.hpp"
#include "ppsd/store/files.hpp"
#include "ppsd/store/unique_fd.hpp"

namespace {

constexpr char kFuseConfiguration[] = "/etc/fuse.conf";
constexpr char kBlanks[] = " \t\r\f\v";
// Nobody but the user of the service has a business below the mount, where nothing is served.
constexpr mode_t kMountPointMode = 0700;

// Unmounts as the system's helper may do it for an ordinary user.
bool unmountWithHelper(const std::string& path) {
    const pid_t child = fork();
    if (child == 0) {
        execlp("fusermount3", "fusermount3", "-u", "-q", "-z", "--", path.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

MountPoint::MountPoint(std::string path) : m_path(std::move(path)) {}

// The connection of a dead service answers everything with ENOTCONN. There may be several, one on
// top of the other.
bool MountPoint::clearStaleMount(std::string& error) {
    struct stat status {};
    while (stat(m_path.c_str(), &status) != 0 && errno == ENOTCONN) {
        if (umount2(m_path.c_str(), MNT_DETACH) != 0 && !unmountWithHelper(m_path)) {
            error = "cannot unmount what a dead service left on " + displayPath(m_path);
            return false;
        }
    }
    return true;
}

bool MountPoint::prepare(std::string& error) {
    if (!clearStaleMount(error)) {
        return false;
    }
    const int makeError = makeFolders(m_path, kMountPointMode);
    if (makeError != 0) {
        error =
            "cannot use the mount point " + displayPath(m_path) + ": " + std::strerror(makeError);
        return false;
    }
    struct stat own {};
    struct stat above {};
    const UniqueFd folder(open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || fstat(folder.get(), &own) != 0 || stat((m_path + "/..").c_str(), &above) != 0) {
        error = "cannot use the mount point " + displayPath(m_path) + ": " + std::strerror(errno);
        return false;
    }
    const bool isMounted = own.st_dev != above.st_dev || own.st_ino == above.st_ino;
    if (isMounted) {
        error = "the mount point " + displayPath(m_path) +
                " is in use: another ppsd or file system is mounted on it";
        return false;
    }
    if ((own.st_mode & 07777U) != kMountPointMode && fchmod(folder.get(), kMountPointMode) != 0) {
        error = "cannot close the folder under the mount " + displayPath(m_path) +
                " to others: " + std::strerror(errno);
        return false;
    }
    return true;
}

bool permitsOthers(std::istream& configuration) {
    std::string line;
    while (std::getline(configuration, line)) {
        line.resize(std::min(line.find('#'), line.size()));
        const std::size_t start = line.find_first_not_of(kBlanks);
        if (start == std::string::npos) {
            continue;
        }
        if (line.substr(start, line.find_last_not_of(kBlanks) + 1 - start) == "user_allow_other") {
            return true;
        }
    }
    return false;
}

std::string mountOptions() {
    std::string options = "default_permissions,fsname=ppsd,subtype=ppsd";
    std::ifstream configuration(kFuseConfiguration);
    if (geteuid() == 0 || permitsOthers(configuration)) {
        options += ",allow_other";
    }
    return options;
}

std::string absolutePath(const std::string& path) {
    if (path.empty()) {
        return {};
    }
    const std::string absolute = std::filesystem::absolute(path).lexically_normal().string();
    return absolute.size() > 1 && absolute.back() == '/' ? absolute.substr(0, absolute.size() - 1)
                                                         : absolute;
}

std::string displayPath(const std::string& path) {
    const std::string root = absolutePath(platformPath(""));
    const bool isBelow = root.size() > 1 && path.starts_with(root + "/");
    return isBelow ? path.substr(root.size()) : path;
}
