// Everything is answered on one thread, in the order in which the kernel queued it, but for what
// has to reach the disk first: that is answered when it has. One thread is what makes "close, then
// open again" exact: the kernel queues the release of a file before close() returns and the next
// open after it, so an open finds the server that just closed gone, without any waiting.

#include "ppsd/fuse/operations.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <utility>

#include "ppsd/fuse/caller.hpp"
#include "ppsd/fuse/raw_replies.hpp"
#include "ppsd/store/content.hpp"
#include "ppsd/store/limits.hpp"

namespace {

constexpr std::uint64_t kRootNumber = 1;

// The first of the numbers of a node, or of the one that is made after it.
fuse_ino_t firstNumber(std::uint64_t node) {
    return node << OpenOptions::kBits;
}

fuse_ino_t inodeNumber(const Node& node, OpenOptions options) {
    return node.number == kRootNumber ? FUSE_ROOT_ID : firstNumber(node.number) | options.bits();
}

OpenOptions optionsOf(fuse_ino_t inode) {
    return OpenOptions::fromBits(inode & ((1U << OpenOptions::kBits) - 1));
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
        status.st_size = static_cast<off_t>(textBytes(node.name, object.content->lines));
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

// For a name on which options make no sense.
int refuseOptions(int error, const ObjectName& name) {
    return error == 0 && name.options.bits() != 0 ? EINVAL : error;
}

constexpr mode_t kPrivilegeBits = S_ISUID | S_ISGID;

// Whether the caller may change the attributes of the node. The kernel has looked already, but goes
// by what it knew of an open file when that was opened under the same name, options included: the
// owner and the mode may have been changed since, under another.
bool mayChange(const Node& node, uid_t caller, const struct stat& status, int which) {
    const Metadata& present = node.latestMetadata();
    if (caller == 0 || caller == present.owner) {
        return true;
    }
    const mode_t mode = status.st_mode & 07777U;
    // What the kernel takes from a file by itself that is written to.
    const bool isStripped =
        (mode & ~kPrivilegeBits) == (present.mode & ~kPrivilegeBits) && (mode & ~present.mode) == 0;
    const bool changesMode = (which & FUSE_SET_ATTR_MODE) != 0 && !isStripped;
    const bool setsTime =
        (which & FUSE_SET_ATTR_MTIME) != 0 && (which & FUSE_SET_ATTR_MTIME_NOW) == 0;
    return !changesMode && !setsTime && (which & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) == 0;
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
std::shared_ptr<Node> Operations::subjectOf(const Inode& inode) {
    const DirectoryNode* folder = inode.node->parent;
    if (inode.options.server && folder != nullptr) {
        const auto served = folder->served.find(inode.node->name);
        if (served != folder->served.end()) {
            return served->second;
        }
    }
    return inode.node;
}

std::shared_ptr<DirectoryNode> Operations::findFolder(fuse_ino_t number) {
    const Inode* inode = find(number);
    const bool isFolder = inode != nullptr && inode->node->kind == NodeKind::kDirectory;
    return isFolder ? std::static_pointer_cast<DirectoryNode>(inode->node) : nullptr;
}

int Operations::findPlace(fuse_ino_t folder, const char* name, Place& place) {
    place.folder = findFolder(folder);
    return place.folder == nullptr ? ENOENT : parseObjectName(name, place.name);
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
    Place place;
    const int error = findPlace(folder, name, place);
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    const std::shared_ptr<Node> node = m_store.find(*place.folder, place.name.name);
    if (node == nullptr) {
        fuse_reply_err(request, ENOENT);
    } else if (node->kind == NodeKind::kDirectory && place.name.options.bits() != 0) {
        fuse_reply_err(request, EINVAL);
    } else {
        replyEntry(request, node, place.name.options);
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
    const struct stat status = statusOf(*subjectOf(*found));
    fuse_reply_attr(request, &status, 0);
}

// A change of size and one of the metadata may come in one request; the second then waits for the
// first.
void Operations::setAttributes(fuse_req_t request, fuse_ino_t inode, const struct stat& status,
                               int which) {
    const Inode* found = find(inode);
    if (found == nullptr) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    const std::shared_ptr<Node> node = subjectOf(*found);
    const uid_t user = callerOf(request).user;
    if (!mayChange(*node, user, status, which)) {
        fuse_reply_err(request, EPERM);
        return;
    }
    Store::MetadataChange change;
    if ((which & FUSE_SET_ATTR_MODE) != 0) {
        change.mode = status.st_mode & 07777U;
    }
    if ((which & FUSE_SET_ATTR_UID) != 0) {
        change.owner = status.st_uid;
    }
    if ((which & FUSE_SET_ATTR_GID) != 0) {
        change.group = status.st_gid;
    }
    if ((which & FUSE_SET_ATTR_MTIME_NOW) != 0) {
        change.modified = timespec{};
        clock_gettime(CLOCK_REALTIME, &*change.modified);
    } else if ((which & FUSE_SET_ATTR_MTIME) != 0) {
        change.modified = status.st_mtim;
    }
    const auto answer = [this, request, inode](int error) {
        if (error != 0) {
            fuse_reply_err(request, error);
        } else {
            getAttributes(request, inode);
        }
    };
    const auto changeMetadata = [this, user, node, change, answer](int error) {
        if (error != 0 || change.isNothing()) {
            answer(error);
        } else {
            m_store.setMetadata(user, node, change, answer);
        }
    };
    if ((which & FUSE_SET_ATTR_SIZE) == 0) {
        changeMetadata(0);
    } else if (status.st_size != 0) {
        changeMetadata(EINVAL);
    } else {
        m_store.truncate(user, node, changeMetadata);
    }
}

void Operations::makeDirectory(fuse_req_t request, fuse_ino_t folder, const char* name,
                               mode_t mode) {
    Place place;
    const int error = refuseOptions(findPlace(folder, name, place), place.name);
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    m_store.makeDirectory(place.folder, place.name.name, callerOf(request), mode,
                          [this, request](int failure, const std::shared_ptr<Node>& node) {
                              answerMade(request, failure, node);
                          });
}

void Operations::makeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode) {
    Place place;
    int error = refuseOptions(findPlace(folder, name, place), place.name);
    if (error == 0 && !S_ISREG(mode)) {
        error = EPERM;
    }
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    m_store.create(
        place.folder, place.name, callerOf(request), mode, {},
        [this, request](int failure, const std::shared_ptr<Node>& node,
                        const std::unique_ptr<OpenFile>&) { answerMade(request, failure, node); });
}

void Operations::answerMade(fuse_req_t request, int error, const std::shared_ptr<Node>& node) {
    answerOrRefuse(request, [&] {
        if (error != 0) {
            fuse_reply_err(request, error);
        } else {
            replyEntry(request, node, {});
        }
    });
}

void Operations::unlink(fuse_req_t request, fuse_ino_t folder, const char* name) {
    Place place;
    const int error = refuseOptions(findPlace(folder, name, place), place.name);
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    m_store.removeObject(callerOf(request).user, place.folder, place.name.name,
                         [request](int failure) { fuse_reply_err(request, failure); });
}

void Operations::removeDirectory(fuse_req_t request, fuse_ino_t folder, const char* name) {
    Place place;
    const int error = refuseOptions(findPlace(folder, name, place), place.name);
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    m_store.removeDirectory(callerOf(request).user, place.folder, place.name.name,
                            [request](int failure) { fuse_reply_err(request, failure); });
}

void Operations::rename(fuse_req_t request, fuse_ino_t folder, const char* name,
                        fuse_ino_t newFolder, const char* newName, unsigned flags) {
    Place from;
    Place to;
    int error = refuseOptions(findPlace(folder, name, from), from.name);
    if (error == 0) {
        error = refuseOptions(findPlace(newFolder, newName, to), to.name);
    }
    if (error == 0 && (flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) {
        error = EINVAL;
    }
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    m_store.rename(callerOf(request).user, from.folder, from.name.name, to.folder, to.name.name,
                   (flags & RENAME_NOREPLACE) == 0,
                   [request](int failure) { fuse_reply_err(request, failure); });
}

void Operations::open(fuse_req_t request, fuse_ino_t inode, int flags) {
    const Inode* found = find(inode);
    if (found == nullptr) {
        // Its server has just gone. Who comes to serve may have said O_CREAT: the kernel looks
        // again.
        fuse_reply_err(request, optionsOf(inode).server ? ESTALE : ENOENT);
        return;
    }
    m_store.open(found->node, found->options, accessOf(request, flags),
                 [this, request, inode](int error, const std::shared_ptr<Node>&,
                                        std::unique_ptr<OpenFile> file) {
                     answerOrRefuse(request,
                                    [&] { answerOpen(request, inode, error, std::move(file)); });
                 });
}

void Operations::answerOpen(fuse_req_t request, fuse_ino_t inode, int error,
                            std::unique_ptr<OpenFile> file) {
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    const bool isStream = file->isStream();
    const std::uint64_t handle = m_files.add(callerOf(request).user, std::move(file));
    countOpen(inode);
    if (replyOpen(request, handle, isStream) != 0) {
        release(inode, handle);
    }
}

void Operations::create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
                        int flags) {
    Place place;
    const int error = findPlace(folder, name, place);
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    const bool mustBeNew = (flags & O_EXCL) != 0;
    m_store.create(
        place.folder, place.name, callerOf(request), mode, accessOf(request, flags),
        [this, request, mustBeNew, options = place.name.options](
            int failure, const std::shared_ptr<Node>& node, std::unique_ptr<OpenFile> file) {
            if (failure == EEXIST && !mustBeNew) {
                failure = ESTALE;  // it came into being just now: the kernel looks again
            }
            answerOrRefuse(request,
                           [&] { answerCreate(request, failure, node, options, std::move(file)); });
        });
}

void Operations::answerCreate(fuse_req_t request, int error, const std::shared_ptr<Node>& node,
                              OpenOptions options, std::unique_ptr<OpenFile> file) {
    if (error != 0) {
        fuse_reply_err(request, error);
        return;
    }
    const bool isStream = file->isStream();
    const std::uint64_t handle = m_files.add(callerOf(request).user, std::move(file));
    fuse_entry_param entry{};
    try {
        entry = remember(node, options);
    } catch (...) {
        m_files.release(handle);
        throw;
    }
    countOpen(entry.ino);
    if (replyCreate(request, entry, handle, isStream) != 0) {
        release(entry.ino, handle);
        forget(entry.ino, 1);
    }
}

void Operations::countOpen(fuse_ino_t inode) {
    if (Inode* opened = find(inode)) {
        ++opened->opens;
    }
}

void Operations::release(fuse_ino_t inode, std::uint64_t handle) {
    std::shared_ptr<Node> node;
    if (Inode* released = find(inode)) {
        node = subjectOf(*released);
        --released->opens;
    }
    m_files.release(handle);
    if (node != nullptr && node->kind == NodeKind::kServed && node->parent == nullptr) {
        forgetServed(*node);
    }
}

// The kernel keeps the names that it was told of, and so their numbers, until it wants its memory;
// what is known of those that were served, and are not any more, goes as soon as nobody has them
// open. To the kernel they are unknown then, which is what they are.
void Operations::forgetServed(const Node& node) {
    const auto end = m_inodes.lower_bound(firstNumber(node.number + 1));
    for (auto next = m_inodes.lower_bound(firstNumber(node.number)); next != end;) {
        next = next->second.opens == 0 ? m_inodes.erase(next) : std::next(next);
    }
}

// The kernel cuts a write that is gathered from more than 256 buffers in two, which shows only when
// the second piece comes: a stream has no position, but a piece has, right behind the one before.
// (What is appended has one too, of no meaning.)
void Operations::write(fuse_req_t request, const char* bytes, std::size_t size, off_t offset,
                       int flags, std::uint64_t handle) {
    OpenFile& file = m_files.file(handle);
    const std::size_t before = m_files.exchangeWritten(handle, size);
    const bool isBehind = offset != 0 && static_cast<std::uint64_t>(offset) == before;
    if (file.isStream() && isBehind && (flags & O_APPEND) == 0) {
        m_files.exchangeWritten(handle, before + size);
        file.takeBackCutWrite();
        fuse_reply_err(request, EMSGSIZE);
        return;
    }
    file.write(fuse_req_ctx(request)->uid, {bytes, size}, [request, size](int error) {
        if (error != 0) {
            fuse_reply_err(request, error);
        } else {
            fuse_reply_write(request, size);
        }
    });
}

// A listing is taken when the folder is opened, so that no entry is missed or given twice while
// others come and go. All who open it while nothing changes share one.
void Operations::openDirectory(fuse_req_t request, fuse_ino_t inode) {
    const std::shared_ptr<DirectoryNode> folder = findFolder(inode);
    if (folder == nullptr) {
        fuse_reply_err(request, ENOTDIR);
        return;
    }
    const uid_t user = callerOf(request).user;
    OpenListing opened;
    const int error = m_store.takePlace(user, opened.place);
    if (error == 0) {
        opened.listing = m_store.list(*folder, user, opened.charge);
    }
    if (error != 0 || opened.listing == nullptr) {
        fuse_reply_err(request, error != 0 ? error : ENOBUFS);
        return;
    }
    const std::uint64_t handle = m_nextListing++;
    m_listings.emplace(handle, std::move(opened));
    fuse_file_info info{};
    info.fh = handle;
    if (fuse_reply_open(request, &info) != 0) {
        m_listings.erase(handle);
    }
}

void Operations::readDirectory(fuse_req_t request, std::size_t size, off_t offset,
                               std::uint64_t handle) {
    const std::vector<Listing::Entry>& listing = m_listings.at(handle).listing->entries;
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

// What is free is what is free on the disk below the store.
void Operations::fileSystemStatus(fuse_req_t request) {
    struct statvfs status {};
    if (fstatvfs(m_store.disk().descriptor(), &status) != 0) {
        fuse_reply_err(request, errno);
        return;
    }
    status.f_namemax = kNameMaxBytes;
    fuse_reply_statfs(request, &status);
}
