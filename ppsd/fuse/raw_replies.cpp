#include "ppsd/fuse/raw_replies.hpp"

#include <linux/fuse.h>

namespace {

fuse_open_out openOut(std::uint64_t handle, bool isStream) {
    fuse_open_out out{};
    out.fh = handle;
    // Every read and write comes to us, whatever the kernel thinks the size is; and a close has
    // nothing to flush.
    out.open_flags = FOPEN_DIRECT_IO | FOPEN_NOFLUSH;
    if (isStream) {
        out.open_flags |= FOPEN_STREAM;
    }
    return out;
}

std::uint32_t nanoseconds(const timespec& time) {
    return static_cast<std::uint32_t>(time.tv_nsec);
}

// Time-outs stay 0: the kernel asks again each time.
fuse_entry_out entryOut(const fuse_entry_param& entry) {
    const struct stat& status = entry.attr;
    fuse_entry_out out{};
    out.nodeid = entry.ino;
    out.generation = entry.generation;
    out.attr.ino = status.st_ino;
    out.attr.size = static_cast<std::uint64_t>(status.st_size);
    out.attr.blocks = static_cast<std::uint64_t>(status.st_blocks);
    out.attr.atime = static_cast<std::uint64_t>(status.st_atim.tv_sec);
    out.attr.mtime = static_cast<std::uint64_t>(status.st_mtim.tv_sec);
    out.attr.ctime = static_cast<std::uint64_t>(status.st_ctim.tv_sec);
    out.attr.atimensec = nanoseconds(status.st_atim);
    out.attr.mtimensec = nanoseconds(status.st_mtim);
    out.attr.ctimensec = nanoseconds(status.st_ctim);
    out.attr.mode = status.st_mode;
    out.attr.nlink = static_cast<std::uint32_t>(status.st_nlink);
    out.attr.uid = status.st_uid;
    out.attr.gid = status.st_gid;
    out.attr.blksize = static_cast<std::uint32_t>(status.st_blksize);
    return out;
}

}  // namespace

int replyOpen(fuse_req_t request, std::uint64_t handle, bool isStream) {
    const fuse_open_out out = openOut(handle, isStream);
    return fuse_reply_buf(request, reinterpret_cast<const char*>(&out), sizeof out);
}

int replyCreate(fuse_req_t request, const fuse_entry_param& entry, std::uint64_t handle,
                bool isStream) {
    struct {
        fuse_entry_out entry;
        fuse_open_out open;
    } out{entryOut(entry), openOut(handle, isStream)};
    static_assert(sizeof out == sizeof(fuse_entry_out) + sizeof(fuse_open_out));
    return fuse_reply_buf(request, reinterpret_cast<const char*>(&out), sizeof out);
}
