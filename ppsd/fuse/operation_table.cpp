// The functions that the library calls, each a line that finds its object and passes the request
// on.

#include "ppsd/fuse/operation_table.hpp"

#include <fcntl.h>

#include <cerrno>

#include "ppsd/store/limits.hpp"

namespace {

// One write(2) has to arrive as one request, so that it can be applied whole or not at all. A
// served object takes messages of this size at most; what is larger is refused before it is looked
// at.
constexpr unsigned kRequestMaxBytes = 1024 * 1024;
static_assert(kRequestMaxBytes > 2 * kMessageMaxBytes);
static_assert(kRequestMaxBytes - 4096 >= kObjectTextMaxBytes);

// Releases are background requests. With the library's default of a dozen they would wait behind
// each other while new opens overtake them.
constexpr unsigned kBackgroundRequestsMax = 4096;

Operations& self(fuse_req_t request) {
    return *static_cast<Operations*>(fuse_req_userdata(request));
}

// The operations, for an action that answers the request; see answerOrRefuse().
template <typename Action>
void serve(fuse_req_t request, Action action) {
    answerOrRefuse(request, [&] { action(self(request)); });
}

void init(void*, fuse_conn_info* connection) {
    connection->max_write = kRequestMaxBytes;
    connection->max_background = kBackgroundRequestsMax;
    connection->congestion_threshold = kBackgroundRequestsMax;
}

void lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
    serve(request, [&](Operations& operations) { operations.lookup(request, folder, name); });
}

void forget(fuse_req_t request, fuse_ino_t inode, std::uint64_t count) {
    self(request).forget(inode, count);
    fuse_reply_none(request);
}

void forgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
    for (std::size_t i = 0; i < count; ++i) {
        self(request).forget(forgets[i].ino, forgets[i].nlookup);
    }
    fuse_reply_none(request);
}

void getAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    serve(request, [&](Operations& operations) { operations.getAttributes(request, inode); });
}

void setAttributes(fuse_req_t request, fuse_ino_t inode, struct stat* status, int which,
                   fuse_file_info*) {
    serve(request, [&](Operations& operations) {
        operations.setAttributes(request, inode, *status, which);
    });
}

void makeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode, dev_t) {
    serve(request,
          [&](Operations& operations) { operations.makeNode(request, folder, name, mode); });
}

void makeDirectory(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode) {
    serve(request,
          [&](Operations& operations) { operations.makeDirectory(request, folder, name, mode); });
}

void removeObject(fuse_req_t request, fuse_ino_t folder, const char* name) {
    serve(request, [&](Operations& operations) { operations.unlink(request, folder, name); });
}

void removeDirectory(fuse_req_t request, fuse_ino_t folder, const char* name) {
    serve(request,
          [&](Operations& operations) { operations.removeDirectory(request, folder, name); });
}

void moveEntry(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t newFolder,
               const char* newName, unsigned flags) {
    serve(request, [&](Operations& operations) {
        operations.rename(request, folder, name, newFolder, newName, flags);
    });
}

void openFile(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    serve(request, [&](Operations& operations) { operations.open(request, inode, info->flags); });
}

void createFile(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
                fuse_file_info* info) {
    serve(request, [&](Operations& operations) {
        operations.create(request, folder, name, mode, info->flags);
    });
}

void readFile(fuse_req_t request, fuse_ino_t, std::size_t size, off_t, fuse_file_info* info) {
    using Impatience = OpenFiles::Impatience;
    // The kernel names an owner of locks with a read that somebody has called, and with no other.
    const Impatience impatience = info->lock_owner == 0             ? Impatience::kForPageCache
                                  : (info->flags & O_NONBLOCK) != 0 ? Impatience::kNonBlocking
                                                                    : Impatience::kNone;
    serve(request, [&](Operations& operations) {
        operations.files().read(request, info->fh, size, impatience);
    });
}

void writeFile(fuse_req_t request, fuse_ino_t, const char* bytes, std::size_t size, off_t offset,
               fuse_file_info* info) {
    serve(request, [&](Operations& operations) {
        operations.write(request, bytes, size, offset, info->flags, info->fh);
    });
}

void pollFile(fuse_req_t request, fuse_ino_t, fuse_file_info* info, fuse_pollhandle* waker) {
    serve(request,
          [&](Operations& operations) { operations.files().poll(request, info->fh, waker); });
}

void releaseFile(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    self(request).release(inode, info->fh);
    fuse_reply_err(request, 0);
}

void openDirectory(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    serve(request, [&](Operations& operations) { operations.openDirectory(request, inode); });
}

void readDirectory(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset,
                   fuse_file_info* info) {
    serve(request, [&](Operations& operations) {
        operations.readDirectory(request, size, offset, info->fh);
    });
}

void releaseDirectory(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
    self(request).releaseDirectory(request, info->fh);
}

void fileSystemStatus(fuse_req_t request, fuse_ino_t) {
    serve(request, [&](Operations& operations) { operations.fileSystemStatus(request); });
}

}  // namespace

fuse_lowlevel_ops operationTable() {
    fuse_lowlevel_ops table{};
    table.init = init;
    table.lookup = lookup;
    table.forget = forget;
    table.forget_multi = forgetMany;
    table.getattr = getAttributes;
    table.setattr = setAttributes;
    table.mknod = makeNode;
    table.mkdir = makeDirectory;
    table.unlink = removeObject;
    table.rmdir = removeDirectory;
    table.rename = moveEntry;
    table.open = openFile;
    table.create = createFile;
    table.read = readFile;
    table.write = writeFile;
    table.poll = pollFile;
    table.release = releaseFile;
    table.opendir = openDirectory;
    table.readdir = readDirectory;
    table.releasedir = releaseDirectory;
    table.statfs = fileSystemStatus;
    return table;
}
