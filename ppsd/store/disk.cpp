// The tree on disk mirrors the tree of objects, so that a listing shows what is there and the
// kernel's own rename moves objects and folders in one step. '?' can stand in no object's name,
// which makes names that begin with it free for this file's use:
//
//     ?dir     in every folder: its owner, group, mode and time
//     ?new...  a file being written, without meaning until it is renamed (several at once have a
//              number behind the name); or an object that is being removed or replaced, which has
//              its meaning back only if that fails
//     ?newdir  a folder being made; without meaning until it is renamed
//     ?olddir  a folder being removed; it is gone from the moment of its renaming
//
// Every entry is reached through a descriptor of its folder, and every folder through that of the
// folder above it: the whole path of a deep one is longer than the system takes.
//
// A crash between any two steps leaves the old state or the new one, and perhaps a leftover of one
// of these names, which load() removes.

#include "ppsd/store/disk.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>
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

bool isThere(int folder, const std::string& name) {
    struct stat status {};
    return fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

int renameEntry(int fromFolder, const std::string& from, int toFolder, const std::string& to) {
    return renameat(fromFolder, from.c_str(), toFolder, to.c_str()) == 0 ? 0 : errno;
}

// Brings to the medium that an entry was moved from a folder `from` to `to`, its name there being
// `toName`. Where that fails it is moved back, so that what is seen of the tree is what is stored.
int syncOrUndo(int to, const std::string& toName, int from, const std::string& fromName) {
    int error = syncFolder(to);
    if (error == 0 && from != to) {
        error = syncFolder(from);
    }
    if (error != 0) {
        renameEntry(to, toName, from, fromName);
    }
    return error;
}

// What is left of a removed folder, which is gone in any case: what stays is removed another time.
void clearAway(int folder) noexcept {
    try {
        removeFlatFolder(folder, kOldFolder);
    } catch (const std::bad_alloc&) {
        return;
    }
}

// The name under which the change of this number is written.
std::string asideName(std::size_t number) {
    return number == 0 ? kNewFile : kNewFile + std::to_string(number);
}

// A folder of the batch, opened once.
struct OpenFolder {
    UniqueFd fd;
    int error = 0;
    bool isChanged = false;
};

}  // namespace

Disk::Disk(std::string folder, Report report)
    : m_folder(std::move(folder)), m_report(std::move(report)), m_trouble(m_report) {}

int Disk::open() {
    int error = makeFolders(m_folder, 0700);
    if (error == 0) {
        error = lock();
    }
    if (error == 0) {
        error = makeFolders(m_folder + "/tree", 0700);
    }
    if (error == 0) {
        error = openFolder(AT_FDCWD, m_folder + "/tree", m_tree);
    }
    if (error != 0) {
        m_lock.reset();
        return error;
    }
    error = syncFolder(m_folder);
    if (error != 0 && error != EROFS) {
        m_lock.reset();
        return error;
    }
    // Somebody else's folder, perhaps one that may be entered but not read.
    const int parentError = syncFolder(folderOf(m_folder));
    if (parentError != 0 && parentError != EROFS) {
        m_report("cannot sync the folder above the store: " +
                 std::string(std::strerror(parentError)));
    }
    return 0;
}

// On a disk that cannot be written to, the file may be there only to be read, or not at all; then
// the folder itself takes the lock.
int Disk::lock() {
    const std::string file = m_folder + "/lock";
    UniqueFd taken(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!taken && errno == EROFS) {
        taken = UniqueFd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    }
    if (!taken && errno == ENOENT) {
        taken = UniqueFd(::open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (!taken || flock(taken.get(), LOCK_EX | LOCK_NB) != 0) {
        return errno;
    }
    m_lock = std::move(taken);
    return 0;
}

int Disk::openPath(const std::string& path, UniqueFd& folder) const {
    int error = openFolder(m_tree.get(), ".", folder);
    for (std::size_t at = 0; error == 0 && at < path.size();) {
        const std::size_t slash = std::min(path.find('/', at), path.size());
        UniqueFd next;
        error = openFolder(folder.get(), path.substr(at, slash - at), next);
        folder = std::move(next);
        at = slash + 1;
    }
    return error;
}

// Opens the folder in which `path` lies, and gives its name there.
int Disk::openFolderOf(const std::string& path, UniqueFd& folder, std::string& name) const {
    const std::size_t slash = path.rfind('/');
    name = slash == std::string::npos ? path : path.substr(slash + 1);
    return openPath(slash == std::string::npos ? "" : path.substr(0, slash), folder);
}

Metadata Disk::loadRoot(const Metadata& fallback) {
    if (!isThere(m_tree.get(), kDirectoryRecord)) {
        const int error = saveDirectory("", fallback);
        if (error != 0) {
            m_report("cannot store the root folder: " + std::string(std::strerror(error)));
        }
        return fallback;
    }
    Entry root;
    std::string error;
    if (loadEntry(m_tree.get(), ".", root, error)) {
        return root.record.metadata;
    }
    keepAside(kDirectoryRecord, error);
    return fallback;
}

std::vector<Disk::Entry> Disk::load(const std::string& path) {
    UniqueFd folder;
    std::vector<std::string> names;
    int listError = openPath(path, folder);
    if (listError == 0) {
        removeLeftovers(folder.get(), path);
        listError = listFolder(folder.get(), names);
    }
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
        if (loadEntry(folder.get(), name, entry, error)) {
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
bool Disk::loadEntry(int folder, const std::string& name, Entry& entry, std::string& error) const {
    struct stat status {};
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        error = std::strerror(errno);
        return false;
    }
    entry.isDirectory = S_ISDIR(status.st_mode);
    std::string text;
    int readError = 0;
    if (entry.isDirectory) {
        UniqueFd own;
        readError = openFolder(folder, name, own);
        readError = readError != 0 ? readError : readFile(own.get(), kDirectoryRecord, text);
    } else {
        readError = readFile(folder, name, text);
    }
    if (readError != 0) {
        error = std::strerror(readError);
        return false;
    }
    if (!decodeRecord(text, entry.record, error)) {
        return false;
    }
    if (entry.isDirectory && !entry.record.lines.empty()) {
        error = "a folder has no attributes";
        return false;
    }
    return true;
}

void Disk::removeLeftovers(int folder, const std::string& path) {
    std::vector<std::string> names;
    listFolder(folder, names);
    for (const std::string& name : names) {
        int error = 0;
        if (name == kNewFolder || name == kOldFolder) {
            error = removeFlatFolder(folder, name);
        } else if (name.starts_with(kNewFile)) {
            unlinkat(folder, name.c_str(), 0);
        }
        if (error != 0) {
            m_report("cannot remove the leftover tree/" + join(path, name) + ": " +
                     std::strerror(error));
        }
    }
}

// Moves a file that makes no sense to "damaged/N-NAME", where a person can look at it.
void Disk::keepAside(const std::string& path, const std::string& error) {
    UniqueFd source;
    std::string name;
    if (openFolderOf(path, source, name) != 0 || !isThere(source.get(), name)) {
        m_report("stored /" + path + " is lost: " + error);
        return;
    }
    UniqueFd damaged;
    int moveError = makeFolders(m_folder + "/damaged", 0700);
    if (moveError == 0) {
        moveError = openFolder(AT_FDCWD, m_folder + "/damaged", damaged);
    }
    std::string kept;
    for (unsigned number = 1; moveError == 0; ++number) {
        kept = std::to_string(number) + "-" + name.substr(0, kNameMaxBytes - 24);
        if (!isThere(damaged.get(), kept)) {
            moveError = renameEntry(source.get(), name, damaged.get(), kept);
            break;
        }
    }
    const std::string fate = moveError == 0
                                 ? "kept aside as damaged/" + kept
                                 : "left where it is: " + std::string(std::strerror(moveError));
    m_report("stored /" + path + " is damaged (" + error + "), " + fate);
}

// All files are written and synced before the first of them gets its name, so that the folders'
// syncs stand at the end, one for each.
void Disk::saveAll(std::vector<Save>& saves) {
    std::map<std::string, OpenFolder> folders;
    std::vector<OpenFolder*> folderAt(saves.size());
    std::vector<std::string> names(saves.size());
    std::vector<bool> isNew(saves.size());
    for (std::size_t i = 0; i < saves.size(); ++i) {
        Save& save = saves[i];
        const std::size_t slash = save.path.rfind('/');
        const bool isAtTop = slash == std::string::npos;
        names[i] = save.isDirectory ? kDirectoryRecord : save.path.substr(isAtTop ? 0 : slash + 1);
        const std::string path =
            save.isDirectory ? save.path : save.path.substr(0, isAtTop ? 0 : slash);
        const auto [found, isFirst] = folders.try_emplace(path);
        folderAt[i] = &found->second;
        if (isFirst) {
            found->second.error = openPath(path, found->second.fd);
        }
        save.error = found->second.error;
        if (save.error == 0) {
            save.error =
                writeSynced(found->second.fd.get(), asideName(i), encodeRecord(save.record));
        }
    }
    for (std::size_t i = 0; i < saves.size(); ++i) {
        if (saves[i].error != 0) {
            continue;
        }
        const int folder = folderAt[i]->fd.get();
        isNew[i] = !isThere(folder, names[i]);
        saves[i].error = renameEntry(folder, asideName(i), folder, names[i]);
        if (saves[i].error != 0) {
            unlinkat(folder, asideName(i).c_str(), 0);
        } else {
            folderAt[i]->isChanged = true;
        }
    }
    for (auto& [path, folder] : folders) {
        folder.error = folder.isChanged ? syncFolder(folder.fd.get()) : 0;
    }
    for (std::size_t i = 0; i < saves.size(); ++i) {
        if (saves[i].error == 0 && folderAt[i]->error != 0) {
            saves[i].error = folderAt[i]->error;
            if (isNew[i]) {
                unlinkat(folderAt[i]->fd.get(), names[i].c_str(), 0);
            }
        }
    }
    for (const Save& save : saves) {
        m_trouble.noteWrite(save.error, save.record.lines.size(), [this] { return freeBytes(); });
    }
}

std::size_t Disk::freeBytes() const {
    struct statvfs status {};
    return fstatvfs(m_tree.get(), &status) == 0 ? status.f_bavail * status.f_frsize : 0;
}

int Disk::saveObject(const std::string& path, const Record& record) {
    std::vector<Save> saves{{path, false, record, 0}};
    saveAll(saves);
    return saves.front().error;
}

int Disk::saveDirectory(const std::string& path, const Metadata& metadata) {
    std::vector<Save> saves{{path, true, {metadata, {}}, 0}};
    saveAll(saves);
    return saves.front().error;
}

int Disk::makeDirectory(const std::string& path, const Metadata& metadata) {
    UniqueFd parent;
    std::string name;
    int error = openFolderOf(path, parent, name);
    if (error != 0) {
        return error;
    }
    removeLeftovers(parent.get(),
                    path.substr(0, path.size() - std::min(path.size(), name.size() + 1)));
    if (mkdirat(parent.get(), kNewFolder, 0700) != 0) {
        return errno;
    }
    UniqueFd fresh;
    error = openFolder(parent.get(), kNewFolder, fresh);
    if (error == 0) {
        error = writeSynced(fresh.get(), kNewFile, encodeRecord({metadata, {}}));
    }
    if (error == 0) {
        error = renameEntry(fresh.get(), kNewFile, fresh.get(), kDirectoryRecord);
    }
    if (error == 0) {
        error = syncFolder(fresh.get());
    }
    if (error == 0) {
        error = renameEntry(parent.get(), kNewFolder, parent.get(), name);
    }
    if (error == 0) {
        error = syncFolder(parent.get());
        if (error != 0) {
            renameEntry(parent.get(), name, parent.get(), kNewFolder);
        }
    }
    if (error != 0) {
        removeFlatFolder(parent.get(), kNewFolder);
    }
    return error;
}

int Disk::removeObject(const std::string& path) {
    UniqueFd folder;
    std::string name;
    int error = openFolderOf(path, folder, name);
    if (error == 0) {
        error = renameEntry(folder.get(), name, folder.get(), kNewFile);
    }
    if (error == 0) {
        error = syncOrUndo(folder.get(), kNewFile, folder.get(), name);
    }
    if (error == 0) {
        unlinkat(folder.get(), kNewFile, 0);
    }
    return error;
}

int Disk::removeDirectory(const std::string& path) {
    UniqueFd parent;
    std::string name;
    int error = openFolderOf(path, parent, name);
    UniqueFd removed;
    if (error == 0) {
        error = openFolder(parent.get(), name, removed);
    }
    std::vector<std::string> names;
    if (error == 0) {
        error = listFolder(removed.get(), names);
    }
    if (error != 0) {
        return error;
    }
    if (std::any_of(names.begin(), names.end(),
                    [](const std::string& entry) { return entry.front() != '?'; })) {
        return ENOTEMPTY;  // something that could not be loaded and was left where it is
    }
    removeFlatFolder(parent.get(), kOldFolder);
    error = renameEntry(parent.get(), name, parent.get(), kOldFolder);
    if (error == 0) {
        error = syncOrUndo(parent.get(), kOldFolder, parent.get(), name);
    }
    if (error == 0) {
        clearAway(parent.get());
    }
    return error;
}

int Disk::rename(const std::string& from, const std::string& to) {
    UniqueFd source;
    UniqueFd target;
    std::string sourceName;
    std::string targetName;
    int error = openFolderOf(from, source, sourceName);
    if (error == 0) {
        error = openFolderOf(to, target, targetName);
    }
    if (error != 0) {
        return error;
    }
    // What is replaced keeps a name until the other has its own for good.
    unlinkat(target.get(), kNewFile, 0);
    const bool isReplacing =
        linkat(target.get(), targetName.c_str(), target.get(), kNewFile, 0) == 0;
    error = renameEntry(source.get(), sourceName, target.get(), targetName);
    if (error == 0) {
        error = syncOrUndo(target.get(), targetName, source.get(), sourceName);
    }
    if (isReplacing && error != 0 && !isThere(target.get(), targetName)) {
        renameEntry(target.get(), kNewFile, target.get(), targetName);
    } else if (isReplacing) {
        unlinkat(target.get(), kNewFile, 0);
    }
    return error;
}
