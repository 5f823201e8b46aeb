// The tree on disk mirrors the tree of objects, so that a listing shows what is there and the
// kernel's own rename moves objects and folders in one step. '?' can stand in no object's name,
// which makes names that begin with it free for this file's use:
//
//     ?dir     in every folder: its owner, group, mode and time
//     ?new     a file being written; without meaning until it is renamed
//     ?newdir  a folder being made; without meaning until it is renamed
//     ?olddir  a folder being removed; it is gone from the moment of its renaming
//
// A crash between any two steps leaves the old state or the new one, and perhaps a leftover of one
// of these names, which load() removes.

#include "ppsd/store/disk.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "ppsd/store/files.hpp"
#include "ppsd/store/limits.hpp"

namespace {

constexpr char kDirectoryRecord[] = "?dir";
constexpr char kNewFile[] = "?new";
constexpr char kNewFolder[] = "?newdir";
constexpr char kOldFolder[] = "?olddir";
// Of a folder whose record was lost: open to nobody but the user of the service, since what its
// mode protected is not known any more.
constexpr mode_t kLostDirectoryMode = 0700;

std::string join(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

int existsOrErrno(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? 0 : errno;
}

}  // namespace

Disk::Disk(std::string folder, Report report)
    : m_folder(std::move(folder)), m_report(std::move(report)) {}

int Disk::open() {
    int error = makeFolders(m_folder, 0700);
    if (error != 0) {
        return error;
    }
    UniqueFd lock(::open((m_folder + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        return errno;
    }
    error = makeFolders(m_folder + "/tree", 0700);
    if (error == 0) {
        error = syncFolder(m_folder);
    }
    if (error != 0) {
        return error;
    }
    m_lock = std::move(lock);
    // Somebody else's folder, perhaps one that may be entered but not read.
    const int parentError = syncFolder(folderOf(m_folder));
    if (parentError != 0) {
        m_report("cannot sync the folder above the store: " +
                 std::string(std::strerror(parentError)));
    }
    return 0;
}

std::string Disk::treePath(const std::string& path) const {
    return m_folder + "/tree" + (path.empty() ? "" : "/" + path);
}

Metadata Disk::loadRoot(const Metadata& fallback) {
    const std::string file = treePath(kDirectoryRecord);
    if (existsOrErrno(file) == ENOENT) {
        const int error = saveDirectory("", fallback);
        if (error != 0) {
            m_report("cannot store the root folder: " + std::string(std::strerror(error)));
        }
        return fallback;
    }
    Entry root;
    std::string error;
    if (loadEntry("", root, error)) {
        return root.record.metadata;
    }
    keepAside(kDirectoryRecord, error);
    return fallback;
}

std::vector<Disk::Entry> Disk::load(const std::string& path) {
    removeLeftovers(treePath(path));
    std::vector<std::string> names;
    const int listError = listFolder(treePath(path), names);
    if (listError != 0) {
        m_report("cannot list the stored folder /" + path + ": " + std::strerror(listError));
        return {};
    }
    std::vector<Entry> entries;
    for (const std::string& name : names) {
        if (name.front() == '?') {
            continue;  // the folder's own record, or a leftover that could not be removed
        }
        Entry entry;
        entry.name = name;
        std::string error;
        const std::string entryPath = join(path, name);
        if (loadEntry(entryPath, entry, error)) {
            entries.push_back(std::move(entry));
            continue;
        }
        if (!entry.isDirectory) {
            keepAside(entryPath, error);
            continue;
        }
        keepAside(join(entryPath, kDirectoryRecord), error);
        entry.record.metadata = {geteuid(), getegid(), kLostDirectoryMode, {}};
        entries.push_back(std::move(entry));
    }
    return entries;
}

// Reads the record of an object, or of a folder from the "?dir" in it. False with the reason in
// `error`; `entry.isDirectory` is right in any case.
bool Disk::loadEntry(const std::string& path, Entry& entry, std::string& error) {
    std::string file = treePath(path);
    struct stat status {};
    if (lstat(file.c_str(), &status) != 0) {
        error = std::strerror(errno);
        return false;
    }
    entry.isDirectory = S_ISDIR(status.st_mode);
    if (entry.isDirectory) {
        file += std::string("/") + kDirectoryRecord;
    }
    std::string text;
    const int readError = readFile(file, text);
    if (readError != 0) {
        error = std::strerror(readError);
        return false;
    }
    if (!decodeRecord(text, entry.record, error)) {
        return false;
    }
    if (entry.isDirectory && !entry.record.attributes.empty()) {
        error = "a folder has no attributes";
        return false;
    }
    return true;
}

void Disk::removeLeftovers(const std::string& folder) {
    unlink((folder + "/" + kNewFile).c_str());
    for (const char* name : {kNewFolder, kOldFolder}) {
        const std::string leftover = folder + "/" + name;
        const int error = removeFlatFolder(leftover);
        if (error != 0 && error != ENOENT) {
            m_report("cannot remove the leftover " + leftover.substr(m_folder.size() + 1) + ": " +
                     std::strerror(error));
        }
    }
}

// Moves a file that makes no sense to "damaged/N-NAME", where a person can look at it.
void Disk::keepAside(const std::string& path, const std::string& error) {
    const std::string source = treePath(path);
    if (existsOrErrno(source) != 0) {
        m_report("stored /" + path + " is lost: " + error);
        return;
    }
    const std::string folder = m_folder + "/damaged";
    int moveError = makeFolders(folder, 0700);
    std::string kept;
    const std::string name = path.substr(path.rfind('/') + 1).substr(0, kNameMaxBytes - 24);
    for (unsigned number = 1; moveError == 0; ++number) {
        kept = folder + "/" + std::to_string(number) + "-" + name;
        if (existsOrErrno(kept) == ENOENT) {
            moveError = ::rename(source.c_str(), kept.c_str()) == 0 ? 0 : errno;
            break;
        }
    }
    const std::string fate = moveError == 0
                                 ? "kept aside as damaged" + kept.substr(folder.size())
                                 : "left where it is: " + std::string(std::strerror(moveError));
    m_report("stored /" + path + " is damaged (" + error + "), " + fate);
}

int Disk::saveObject(const std::string& path, const Record& record) {
    const std::string file = treePath(path);
    return replaceFile(file, folderOf(file) + "/" + kNewFile, encodeRecord(record));
}

int Disk::saveDirectory(const std::string& path, const Metadata& metadata) {
    const std::string folder = treePath(path);
    return replaceFile(folder + "/" + kDirectoryRecord, folder + "/" + kNewFile,
                       encodeRecord({metadata, {}}));
}

int Disk::makeDirectory(const std::string& path, const Metadata& metadata) {
    const std::string folder = treePath(path);
    const std::string parent = folderOf(folder);
    const std::string fresh = parent + "/" + kNewFolder;
    removeLeftovers(parent);
    if (mkdir(fresh.c_str(), 0700) != 0) {
        return errno;
    }
    int error = replaceFile(fresh + "/" + kDirectoryRecord, fresh + "/" + kNewFile,
                            encodeRecord({metadata, {}}));
    if (error == 0 && ::rename(fresh.c_str(), folder.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        removeLeftovers(parent);
        return error;
    }
    return syncFolder(parent);
}

int Disk::removeObject(const std::string& path) {
    const std::string file = treePath(path);
    return unlink(file.c_str()) == 0 ? syncFolder(folderOf(file)) : errno;
}

int Disk::removeDirectory(const std::string& path) {
    const std::string folder = treePath(path);
    std::vector<std::string> names;
    const int error = listFolder(folder, names);
    if (error != 0) {
        return error;
    }
    for (const std::string& name : names) {
        if (name.front() != '?') {
            return ENOTEMPTY;  // something that could not be loaded and was left where it is
        }
    }
    const std::string parent = folderOf(folder);
    removeLeftovers(parent);
    if (::rename(folder.c_str(), (parent + "/" + kOldFolder).c_str()) != 0) {
        return errno;
    }
    const int syncError = syncFolder(parent);
    removeLeftovers(parent);
    return syncError;
}

int Disk::rename(const std::string& from, const std::string& to) {
    const std::string source = treePath(from);
    const std::string target = treePath(to);
    if (::rename(source.c_str(), target.c_str()) != 0) {
        return errno;
    }
    const int error = syncFolder(folderOf(target));
    return error != 0 ? error : syncFolder(folderOf(source));
}
