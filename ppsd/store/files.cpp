#include "ppsd/store/files.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

namespace {

int writeAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(fd, content.data(), content.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace

int openFolder(int folder, const std::string& name, UniqueFd& opened) {
    opened =
        UniqueFd(openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return opened ? 0 : errno;
}

int readFile(int folder, const std::string& name, std::string& content) {
    // Non-blocking, so that a FIFO that somebody put into the store cannot hang the service.
    const UniqueFd file(
        openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    content.clear();
    char block[65536];
    for (;;) {
        const ssize_t got = read(file.get(), block, sizeof block);
        if (got == 0) {
            return 0;
        }
        if (got > 0) {
            content.append(block, static_cast<std::size_t>(got));
        } else if (errno != EINTR) {
            return errno;
        }
    }
}

int writeSynced(int folder, const std::string& name, std::string_view content) {
    const UniqueFd file(
        openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        return errno;
    }
    int error = writeAll(file.get(), content);
    if (error == 0 && fsync(file.get()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlinkat(folder, name.c_str(), 0);
    }
    return error;
}

int syncFolder(int folder) {
    return fsync(folder) == 0 ? 0 : errno;
}

int syncFolder(const std::string& path) {
    const UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder ? syncFolder(folder.get()) : errno;
}

int listFolder(int folder, std::vector<std::string>& names) {
    // A descriptor of its own, as a listing moves the position.
    UniqueFd own(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(own ? fdopendir(own.get()) : nullptr,
                                                      closedir);
    if (!listing) {
        return errno;
    }
    own.release();
    names.clear();
    errno = 0;
    while (const dirent* entry = readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return errno;
}

int makeFolders(const std::string& path, mode_t mode) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) {
            return errno;
        }
    }
    if (mkdir(path.c_str(), mode) == 0) {
        return 0;
    }
    if (errno != EEXIST) {
        return errno;
    }
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return errno;
    }
    return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

int removeFlatFolder(int folder, const std::string& name) {
    UniqueFd removed;
    std::vector<std::string> names;
    int error = openFolder(folder, name, removed);
    if (error == 0) {
        error = listFolder(removed.get(), names);
    }
    if (error != 0) {
        return error;
    }
    for (const std::string& entry : names) {
        if (unlinkat(removed.get(), entry.c_str(), 0) != 0) {
            return errno;
        }
    }
    return unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0 ? 0 : errno;
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}
