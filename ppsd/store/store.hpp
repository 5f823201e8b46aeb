// The tree of objects: what the object service is, without the file system in front of it.
//
// A passive model: it does what it is told, on the thread of its one owner, and tells a listener
// which open files became readable. Ordinary objects and folders are on disk before a call returns;
// a call that fails there has changed nothing. Results of type int are 0 or an errno value.
// Permissions are the caller's business (the kernel checks them before a request arrives).

#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ppsd/store/disk.hpp"
#include "ppsd/store/node.hpp"
#include "ppsd/store/object_name.hpp"
#include "ppsd/store/open_file.hpp"

class Store {
  public:
    struct Owner {
        uid_t user;
        gid_t group;
    };

    struct Access {
        bool reads = true;
        bool writes = true;
        bool truncates = false;
        Opener opener = {};
    };

    struct ListEntry {
        std::string name;
        std::uint64_t number;
        bool isDirectory;
    };

    // `listener` must outlive the store and all files opened from it; the store must outlive the
    // files. Nothing is read before load().
    Store(std::string folder, ReadinessListener& listener, Report report);

    // Opens the folder and reads the tree. EWOULDBLOCK when another process uses it.
    int load();

    const std::shared_ptr<DirectoryNode>& root() const { return m_root; }

    // What `name` (without options) means in `folder` now, or null.
    std::shared_ptr<Node> find(const DirectoryNode& folder, std::string_view name) const;

    // Every name in `folder` once.
    std::vector<ListEntry> list(const DirectoryNode& folder) const;

    // Opens what `node` is: an object, or, with options.server, its name for serving.
    // EBUSY when it is served already, EISDIR for a folder, ENOENT for a served object that ended,
    // ESTALE when the name means something else by now and is worth looking up again. On success
    // `node` is what was opened, which for a server is the new served object.
    int open(std::shared_ptr<Node>& node, OpenOptions options, Access access,
             std::unique_ptr<OpenFile>& file);

    // Makes an object that is not there and opens it. EEXIST when the name is taken, EBUSY when it
    // is served and the caller wants to serve it, EACCES when it wants to serve without reading and
    // writing.
    int create(DirectoryNode& folder, const ObjectName& name, Owner owner, mode_t mode,
               Access access, std::shared_ptr<Node>& node, std::unique_ptr<OpenFile>& file);

    int makeDirectory(DirectoryNode& folder, std::string_view name, Owner owner, mode_t mode,
                      std::shared_ptr<Node>& node);
    int removeDirectory(DirectoryNode& folder, std::string_view name);

    // EBUSY for what is being served: its name is the server's as long as it serves.
    int removeObject(DirectoryNode& folder, std::string_view name);
    int rename(DirectoryNode& folder, std::string_view name, DirectoryNode& newFolder,
               std::string_view newName, bool mayReplace);

    int setMetadata(Node& node, const Metadata& metadata);

    // Removes all attributes. Nothing happens to a served object; EISDIR for a folder.
    int truncate(Node& node);

  private:
    bool isRemoved(const DirectoryNode& folder) const;
    void loadFolder(const std::shared_ptr<DirectoryNode>& folder);
    int openStored(const std::shared_ptr<ObjectNode>& node, OpenOptions options, Access access,
                   std::unique_ptr<OpenFile>& file);
    void serve(DirectoryNode& folder, std::string_view name, const Metadata& metadata,
               OpenOptions options, std::shared_ptr<Node>& node, std::unique_ptr<OpenFile>& file);
    int write(ObjectNode& node, std::string_view text);
    int replaceAttributes(ObjectNode& node, AttributeList attributes);
    int replaceTarget(DirectoryNode& newFolder, std::string_view newName, const Node& moved,
                      bool mayReplace);
    Metadata metadataFor(const DirectoryNode& folder, Owner owner, mode_t mode) const;
    void add(DirectoryNode& folder, const std::shared_ptr<Node>& node);
    void take(DirectoryNode& folder, std::string_view name);

    ReadinessListener& m_listener;
    Disk m_disk;
    std::shared_ptr<DirectoryNode> m_root;
    std::uint64_t m_nextNumber = 1;  // of a node; the root takes 1
    std::uint64_t m_nextClient = 1;  // the connection id of the next client
};
