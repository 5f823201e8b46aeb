// Everything is answered on one thread, in the order in which the kernel queued it. That is what
// makes "close, then open again" exact: the kernel queues the release of a file before close()
// returns and the next open after it, so an open finds the server that just closed gone, without
// any waiting.
//
// The price: while an ordinary object is being synced, everybody's requests wait for that one sync.
// Ordinary objects are meant to change seldom; messages of served objects never touch the disk.

#include "ppsd/fuse/operations.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "ppsd/fuse/caller.hpp"
#include "ppsd/fuse/raw_replies.hpp"
#include "ppsd/store/limits.hpp"

namespace {

constexpr std::uint64_t kRootNumber = 1;
constexpr unsigned long kStatusBlockBytes = 4096;

fuse_ino_t inodeNumber(const Node& node, OpenOptions options) {
    return node.number == kRootNumber ? FUSE_ROOT_ID
                                      : (node.number << OpenOptions::kBits) | options.bits();
}

struct stat statusOf(const Node& node) {
    struct stat status {};
    const bool isDirectory = node.kind == NodeKind::kDirectory;
    const bool isLinked = node.parent != nullptr || node.number == kRootNumber;
    status.st_ino = node.number;
    status.st_mode = (isDirectory ? S_IFDIR : S_IFREG) | node.metadata.mode;
    status.st_nlink = isLinked ? (isDirectory ? 2 : 1) : 0;
    status.st_uid = node.metadata.owner;
    status.st_gid = node.metadata.group;
    status.st_blksize = static_cast<blksize_t>(kPreferredBlockBytes);
    status.st_atim = status.st_mtim = status.st_ctim = node.metadata.modified;
    if (node.kind == NodeKind::kObject) {
        const auto& object = static_cast<const ObjectNode&>(node);
        status.st_size = static_cast<off_t>(renderObject(node.name, *object.attributes).size());
    }
    return status;
}

Store::Owner callerOf(fuse_req_t request) {
    const fuse_ctx* caller = fuse_req_ctx(request);
    return {caller->uid, caller->gid};
}

Store::Access accessOf(fuse_req_t request, int flags) {
    const fuse_ctx* caller = fuse_req_ctx(request);
    const int mode = flags & O_ACCMODE;
    return {mode != O_WRONLY,
            mode != O_RDONLY,
            (flags & O_TRUNC) != 0,
            {caller->uid, caller->gid, processOf(caller->pid)}};
}

// A name on which options make no sense.
int parsePlainName(const char* text, ObjectName& parsed) {
    const int error = parseObjectName(text, parsed);
    return error == 0 && parsed.options.bits() != 0 ? EINVAL : error;
}

}  // namespace

Operations::Operations(Store& store, OpenFiles& files) : m_store(store), m_files(files) {
    m_inodes[FUSE_ROOT_ID] = {store.root(), {}, 1};
}

Operations::Inode* Operations::find(fuse_ino_t number) {
    const auto found = m_inodes.find(number);
    return found == m_inodes.end() ? nullptr : &found->second;
}

// The node whose attributes an inode shows. The server of a name with a stored object behind it
// opened the alias of that object, but its descriptor stands for what it serves.
Node& Operations::subjectOf(const Inode& inode) {
    Node& node = *inode.node;
    if (inode.options.server && node.parent != nullptr) {
        const auto served = node.parent->served.find(node.name);
        if (served != node.parent->served.end()) {
            return *served->second;
        }
    }
    return node;
}

DirectoryNode* Operations::findFolder(fuse_ino_t number) {
    const Inode* inode = find(number);
    const bool isFolder = inode != nullptr && inode->node->kind == NodeKind::kDirectory;
    return isFolder ? static_cast<DirectoryNode*>(inode->node.get()) : nullptr;
}

// Makes the entry to answer with and counts that the kernel was told. Time-outs stay 0: served
// objects come and go by themselves, so the kernel has to ask each time.
fuse_entry_param Operations::remember(const std::shared_ptr<Node>& node, OpenOptions options) {
    fuse_entry_param entry{};
    entry.ino = inodeNumber(*node, options);
    entry.attr = statusOf(*node);
    Inode& inode = m_inodes[entry.ino];
    inode.node = node;
    inode.options = options;
    ++inode.lookups;
    return entry;
}

void Operations::replyEntry(fuse_req_t request, const std::shared_ptr<Node>& node,
                            OpenOptions options) {
    const fuse_entry_param entry = remember(node, options);
    if (fuse_reply_entry(request, &entry) != 0) {
        forget(entry.ino, 1);
    }
}

void Operations::lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
    ObjectName parsed;
    const DirectoryNode* parent = findFolder(folder);
    const int error = parent == nullptr ? ENOENT : parseObjectName(name, parsed);
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    const std::shared_ptr<Node> node = m_store.find(*parent, parsed.name);
    if (node == nullptr) {
        fuse_reply_err(request, ENOENT);
    } else if (node->kind == NodeKind::kDirectory && parsed.options.bits() != 0) {
        fuse_reply_err(request, EINVAL);
    } else {
        replyEntry(request, node, parsed.options);
    }
}

void Operations::forget(fuse_ino_t inode, std::uint64_t count) {
    const auto found = m_inodes.find(inode);
    if (found == m_inodes.end() || inode == FUSE_ROOT_ID) {
        return;
    }
    found->second.lookups -= std::min(count, found->second.lookups);
    if (found->second.lookups == 0) {
        m_inodes.erase(found);
    }
}

void Operations::getAttributes(fuse_req_t request, fuse_ino_t inode) {
    const Inode* found = find(inode);
    if (found == nullptr) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    const struct stat status = statusOf(subjectOf(*found));
    fuse_reply_attr(request, &status, 0);
}

void Operations::setAttributes(fuse_req_t request, fuse_ino_t inode, const struct stat& status,
                               int which) {
    const Inode* found = find(inode);
    if (found == nullptr) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    Node& node = subjectOf(*found);
    int error = 0;
    if ((which & FUSE_SET_ATTR_SIZE) != 0) {
        error = status.st_size == 0 ? m_store.truncate(node) : EINVAL;
    }
    Metadata metadata = node.metadata;
    if ((which & FUSE_SET_ATTR_MODE) != 0) {
        metadata.mode = status.st_mode & 07777U;
    }
    if ((which & FUSE_SET_ATTR_UID) != 0) {
        metadata.owner = status.st_uid;
    }
    if ((which & FUSE_SET_ATTR_GID) != 0) {
        metadata.group = status.st_gid;
    }
    if ((which & FUSE_SET_ATTR_MTIME_NOW) != 0) {
        clock_gettime(CLOCK_REALTIME, &metadata.modified);
    } else if ((which & FUSE_SET_ATTR_MTIME) != 0) {
        metadata.modified = status.st_mtim;
    }
    if (error == 0 && !(metadata == node.metadata)) {
        error = m_store.setMetadata(node, metadata);
    }
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    getAttributes(request, inode);
}

void Operations::makeDirectory(fuse_req_t request, fuse_ino_t folder, const char* name,
                               mode_t mode) {
    ObjectName parsed;
    DirectoryNode* parent = findFolder(folder);
    std::shared_ptr<Node> node;
    int error = parent == nullptr ? ENOENT : parsePlainName(name, parsed);
    if (error == 0) {
        error = m_store.makeDirectory(*parent, parsed.name, callerOf(request), mode, node);
    }
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    replyEntry(request, node, {});
}

void Operations::makeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode) {
    ObjectName parsed;
    DirectoryNode* parent = findFolder(folder);
    std::shared_ptr<Node> node;
    std::unique_ptr<OpenFile> file;
    int error = parent == nullptr ? ENOENT : parsePlainName(name, parsed);
    if (error == 0 && !S_ISREG(mode)) {
        error = EPERM;
    }
    if (error == 0) {
        error = m_store.create(*parent, parsed, callerOf(request), mode, {}, node, file);
    }
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    replyEntry(request, node, {});
}

void Operations::unlink(fuse_req_t request, fuse_ino_t folder, const char* name) {
    ObjectName parsed;
    DirectoryNode* parent = findFolder(folder);
    const int error = parent == nullptr ? ENOENT : parsePlainName(name, parsed);
    fuse_reply_err(request, error != 0 ? error : m_store.removeObject(*parent, parsed.name));
}

void Operations::removeDirectory(fuse_req_t request, fuse_ino_t folder, const char* name) {
    ObjectName parsed;
    DirectoryNode* parent = findFolder(folder);
    const int error = parent == nullptr ? ENOENT : parsePlainName(name, parsed);
    fuse_reply_err(request, error != 0 ? error : m_store.removeDirectory(*parent, parsed.name));
}

void Operations::rename(fuse_req_t request, fuse_ino_t folder, const char* name,
                        fuse_ino_t newFolder, const char* newName, unsigned flags) {
    ObjectName from;
    ObjectName to;
    DirectoryNode* source = findFolder(folder);
    DirectoryNode* target = findFolder(newFolder);
    int error = source == nullptr || target == nullptr ? ENOENT : parsePlainName(name, from);
    if (error == 0) {
        error = parsePlainName(newName, to);
    }
    if (error == 0 && (flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) {
        error = EINVAL;
    }
    if (error == 0) {
        const bool mayReplace = (flags & RENAME_NOREPLACE) == 0;
        error = m_store.rename(*source, from.name, *target, to.name, mayReplace);
    }
    fuse_reply_err(request, error);
}

void Operations::open(fuse_req_t request, fuse_ino_t inode, int flags) {
    const Inode* found = find(inode);
    std::shared_ptr<Node> node = found == nullptr ? nullptr : found->node;
    std::unique_ptr<OpenFile> file;
    const int error = node == nullptr
                          ? ENOENT
                          : m_store.open(node, found->options, accessOf(request, flags), file);
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    const bool isStream = file->isStream();
    const std::uint64_t handle = m_files.add(std::move(file));
    if (replyOpen(request, handle, isStream) != 0) {
        m_files.release(handle);
    }
}

void Operations::create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
                        int flags) {
    ObjectName parsed;
    DirectoryNode* parent = findFolder(folder);
    std::shared_ptr<Node> node;
    std::unique_ptr<OpenFile> file;
    int error = parent == nullptr ? ENOENT : parseObjectName(name, parsed);
    if (error == 0) {
        error = m_store.create(*parent, parsed, callerOf(request), mode, accessOf(request, flags),
                               node, file);
    }
    if (error == EEXIST && (flags & O_EXCL) == 0) {
        error = ESTALE;  // it came into being just now: the kernel looks it up once more
    }
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    const fuse_entry_param entry = remember(node, parsed.options);
    const bool isStream = file->isStream();
    const std::uint64_t handle = m_files.add(std::move(file));
    if (replyCreate(request, entry, handle, isStream) != 0) {
        m_files.release(handle);
        forget(entry.ino, 1);
    }
}

void Operations::write(fuse_req_t request, const char* bytes, std::size_t size,
                       std::uint64_t handle) {
    const int error = m_files.file(handle).write({bytes, size});
    if (error != 0) {
        fuse_reply_err(request, error);
    } else {
        fuse_reply_write(request, size);
    }
}

// A listing is taken when the folder is opened, so that no entry is missed or given twice while
// others come and go.
void Operations::openDirectory(fuse_req_t request, fuse_ino_t inode) {
    const DirectoryNode* folder = findFolder(inode);
    if (folder == nullptr) {
        fuse_reply_err(request, ENOTDIR);
        return;
    }
    const std::uint64_t self = folder->number;
    const std::uint64_t parent = folder->parent == nullptr ? self : folder->parent->number;
    Listing listing = m_store.list(*folder);
    listing.insert(listing.begin(), {{".", self, true}, {"..", parent, true}});
    const std::uint64_t handle = m_nextListing++;
    m_listings.emplace(handle, std::move(listing));
    fuse_file_info info{};
    info.fh = handle;
    if (fuse_reply_open(request, &info) != 0) {
        m_listings.erase(handle);
    }
}

void Operations::readDirectory(fuse_req_t request, std::size_t size, off_t offset,
                               std::uint64_t handle) {
    const Listing& listing = m_listings.at(handle);
    std::string buffer(size, '\0');
    std::size_t used = 0;
    // The offset is the reader's, and may be wider than a size.
    const bool isBehind = static_cast<std::uint64_t>(offset) >= listing.size();
    for (auto i = isBehind ? listing.size() : static_cast<std::size_t>(offset); i < listing.size();
         ++i) {
        struct stat status {};
        status.st_ino = listing[i].number;
        status.st_mode = listing[i].isDirectory ? S_IFDIR : S_IFREG;
        const std::size_t needed =
            fuse_add_direntry(request, buffer.data() + used, size - used, listing[i].name.c_str(),
                              &status, static_cast<off_t>(i + 1));
        if (needed > size - used) {
            break;
        }
        used += needed;
    }
    fuse_reply_buf(request, buffer.data(), used);
}

void Operations::releaseDirectory(fuse_req_t request, std::uint64_t handle) {
    m_listings.erase(handle);
    fuse_reply_err(request, 0);
}

void Operations::fileSystemStatus(fuse_req_t request) {
    struct statvfs status {};
    status.f_bsize = status.f_frsize = kStatusBlockBytes;
    status.f_namemax = kNameMaxBytes;
    fuse_reply_statfs(request, &status);
}
