// Translates the requests of the kernel to the store, and its answers back.
//
// "NAME?options" is a file name like any other to the kernel. It gets an inode of its own, an
// alias, whose number is made of the node's number and the options, and whose owner, mode and times
// are those of NAME: so the kernel's permission check holds for it, and chmod on it changes NAME.

#pragma once

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>

#include "ppsd/fuse/open_files.hpp"
#include "ppsd/store/store.hpp"

// Runs an answer that may want memory before it is given: without any, the caller is told ENOMEM,
// and nobody else hears of it. `answer` must not throw once it has answered.
template <typename Answer>
void answerOrRefuse(fuse_req_t request, Answer answer) {
    try {
        answer();
    } catch (const std::bad_alloc&) {
        fuse_reply_err(request, ENOMEM);
    }
}

// Everything happens on the thread of the request loop; the store and the open files are its own.
class Operations {
  public:
    // Both must outlive the operations.
    Operations(Store& store, OpenFiles& files);

    void lookup(fuse_req_t request, fuse_ino_t folder, const char* name);
    void forget(fuse_ino_t inode, std::uint64_t count);
    void getAttributes(fuse_req_t request, fuse_ino_t inode);
    void setAttributes(fuse_req_t request, fuse_ino_t inode, const struct stat& status, int which);
    void makeDirectory(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode);
    void makeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode);
    void unlink(fuse_req_t request, fuse_ino_t folder, const char* name);
    void removeDirectory(fuse_req_t request, fuse_ino_t folder, const char* name);
    void rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t newFolder,
                const char* newName, unsigned flags);
    void open(fuse_req_t request, fuse_ino_t inode, int flags);
    void create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode, int flags);
    void release(fuse_ino_t inode, std::uint64_t handle);
    void write(fuse_req_t request, const char* bytes, std::size_t size, off_t offset, int flags,
               std::uint64_t handle);
    void openDirectory(fuse_req_t request, fuse_ino_t inode);
    void readDirectory(fuse_req_t request, std::size_t size, off_t offset, std::uint64_t handle);
    void releaseDirectory(fuse_req_t request, std::uint64_t handle);
    void fileSystemStatus(fuse_req_t request);

    OpenFiles& files() { return m_files; }

  private:
    // What the kernel knows by a number.
    struct Inode {
        std::shared_ptr<Node> node;
        OpenOptions options;
        std::uint64_t lookups = 0;  // how often the kernel was told; it forgets as often
        std::size_t opens = 0;      // open files
    };
    struct OpenListing {
        Charge place;
        std::shared_ptr<Listing> listing;
        std::shared_ptr<Charge> charge;
    };

    // Where a name in a folder leads.
    struct Place {
        std::shared_ptr<DirectoryNode> folder;
        ObjectName name;
    };

    Inode* find(fuse_ino_t number);
    static std::shared_ptr<Node> subjectOf(const Inode& inode);
    std::shared_ptr<DirectoryNode> findFolder(fuse_ino_t number);
    // 0 or an errno value.
    int findPlace(fuse_ino_t folder, const char* name, Place& place);
    fuse_entry_param remember(const std::shared_ptr<Node>& node, OpenOptions options);
    void countOpen(fuse_ino_t inode);
    void forgetServed(const Node& node);
    void replyEntry(fuse_req_t request, const std::shared_ptr<Node>& node, OpenOptions options);
    void answerMade(fuse_req_t request, int error, const std::shared_ptr<Node>& node);
    void answerOpen(fuse_req_t request, fuse_ino_t inode, int error,
                    std::unique_ptr<OpenFile> file);
    void answerCreate(fuse_req_t request, int error, const std::shared_ptr<Node>& node,
                      OpenOptions options, std::unique_ptr<OpenFile> file);

    Store& m_store;
    OpenFiles& m_files;
    std::map<fuse_ino_t, Inode> m_inodes;
    std::unordered_map<std::uint64_t, OpenListing> m_listings;
    std::uint64_t m_nextListing = 1;
};
