// The tree of objects: what the object service is, without the file system in front of it.
//
// A passive model: it does what it is told, on the thread of its one owner, and tells a listener
// which open files became readable. Ordinary objects and folders are on disk before they are seen
// changed, and before whoever changed them hears so: see changes.hpp. A change that fails there has
// changed nothing. Served objects never wait for the disk. Results of type int are 0 or an errno
// value. Permissions are the caller's business (the kernel checks them before a request arrives),
// but for what the kernel knows nothing of: who may serve, and what each user's share is.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ppsd/store/accounts.hpp"
#include "ppsd/store/changes.hpp"
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

        // A server reads what clients write and writes what they read.
        bool canServe() const { return reads && writes; }
    };

    // What chmod, chown and touch change.
    struct MetadataChange {
        std::optional<mode_t> mode;
        std::optional<uid_t> owner;
        std::optional<gid_t> group;
        std::optional<timespec> modified;

        bool isNothing() const { return !mode && !owner && !group && !modified; }
    };

    // Hear how an opening ended; after an error with nothing. A node that was made is there even
    // when memory for opening it ran out.
    using Opened =
        std::function<void(int error, const std::shared_ptr<Node>&, std::unique_ptr<OpenFile>)>;
    using Made = std::function<void(int error, const std::shared_ptr<Node>&)>;

    // `listener` and `accounts` must outlive the store and all files and nodes that come from it;
    // the store must outlive the files. Nothing is read before load().
    Store(std::string folder, ReadinessListener& listener, Report report, Accounts& accounts);

    // Opens the folder and reads the tree. EWOULDBLOCK when another process uses it.
    int load();

    // Moves the disk's work to a thread of its own; until then every change is on disk, and told,
    // before its call returns. To be called with the signals blocked that the service waits for.
    int startDiskThread() { return m_changes.startThread(); }
    // Whether finishChanges() will have something to do.
    bool isDiskBusy() const { return m_changes.isBusy(); }
    // Readable when it has.
    int diskDescriptor() const { return m_changes.descriptor(); }
    void finishChanges() { m_changes.finish(); }
    // Lets what is at the disk end, and refuses what waits for it with `error`.
    void endChanges(int error) { m_changes.end(error); }
    const Disk& disk() const { return m_disk; }

    const std::shared_ptr<DirectoryNode>& root() const { return m_root; }

    // What `name` (without options) means in `folder` now, or null.
    std::shared_ptr<Node> find(const DirectoryNode& folder, std::string_view name) const;

    // What is in the folder now, for a process of `reader`; `charge` is to be kept with it. Null
    // past the reader's share of memory.
    std::shared_ptr<Listing> list(DirectoryNode& folder, uid_t reader,
                                  std::shared_ptr<Charge>& charge);

    // A place among the open files of a user. ENFILE when there is none.
    int takePlace(uid_t user, Charge& place);

    // Opens what a look-up found. With "?server" on a stored object the opener becomes its server,
    // and what was opened is the served object, if it is the owner's process or root's and reads
    // and writes (EACCES). ESTALE when a server came between the look-up and this: the look-up is
    // to be repeated.
    void open(const std::shared_ptr<Node>& node, OpenOptions options, Access access,
              const Opened& opened);

    // Makes an object that is not there and opens it. EEXIST when the name is taken, EBUSY when it
    // is served and the caller wants to serve it, EACCES when it wants to serve without reading and
    // writing, EDQUOT past its share of objects.
    void create(const std::shared_ptr<DirectoryNode>& folder, const ObjectName& name, Owner owner,
                mode_t mode, Access access, const Opened& opened);

    // ENAMETOOLONG below the deepest level.
    void makeDirectory(const std::shared_ptr<DirectoryNode>& folder, std::string_view name,
                       Owner owner, mode_t mode, const Made& made);
    void removeDirectory(uid_t user, const std::shared_ptr<DirectoryNode>& folder,
                         std::string_view name, const Done& done);

    // EBUSY for what is being served: its name is the server's as long as it serves.
    void removeObject(uid_t user, const std::shared_ptr<DirectoryNode>& folder,
                      std::string_view name, const Done& done);
    void rename(uid_t user, const std::shared_ptr<DirectoryNode>& folder, std::string_view name,
                const std::shared_ptr<DirectoryNode>& newFolder, std::string_view newName,
                bool mayReplace, const Done& done);

    void setMetadata(uid_t user, const std::shared_ptr<Node>& node, const MetadataChange& change,
                     const Done& done);

    // Removes all attributes. Nothing happens to a served object; EISDIR for a folder.
    void truncate(uid_t user, const std::shared_ptr<Node>& node, const Done& done);

  private:
    using Batch = Changes::Batch;
    // What a write makes of an object's lines.
    using Edit = std::function<std::string(std::string_view lines)>;

    bool isRemoved(const DirectoryNode& folder) const;
    bool isStored(const Node& node) const;
    void loadFolder(const std::shared_ptr<DirectoryNode>& folder);
    int openServed(const std::shared_ptr<ServedNode>& node, OpenOptions options, Access access,
                   std::unique_ptr<OpenFile>& file);
    int openStored(const std::shared_ptr<ObjectNode>& node, OpenOptions options, uid_t user,
                   std::unique_ptr<OpenFile>& file);
    std::unique_ptr<OpenFile> makeFile(const std::shared_ptr<ObjectNode>& node, OpenOptions options,
                                       Charge place);
    int serve(DirectoryNode& folder, std::string_view name, const Metadata& metadata,
              OpenOptions options, uid_t user, std::shared_ptr<Node>& node,
              std::unique_ptr<OpenFile>& file);
    int checkNew(const DirectoryNode& folder, std::string_view name) const;
    void beginCreate(const std::shared_ptr<DirectoryNode>& folder, const std::string& name,
                     Owner owner, mode_t mode, const Opened& opened, OpenOptions options,
                     Batch& batch);
    void beginMakeDirectory(const std::shared_ptr<DirectoryNode>& folder, const std::string& name,
                            Owner owner, mode_t mode, const Made& made, Batch& batch);
    void beginRename(const std::shared_ptr<DirectoryNode>& folder, const std::string& name,
                     const std::shared_ptr<DirectoryNode>& newFolder, const std::string& newName,
                     bool mayReplace, Batch& batch, const Done& done);
    int editRemoved(ObjectNode& node, std::string lines);
    void keepRemoved(ObjectNode& node) noexcept;
    void write(const std::shared_ptr<ObjectNode>& node, uid_t user, std::string_view text,
               const Done& done);
    void edit(const std::shared_ptr<ObjectNode>& node, uid_t user, Edit edit, const Done& done);
    void beginEdit(const std::shared_ptr<ObjectNode>& node, uid_t user, const Edit& edit,
                   Batch& batch, const Done& done);
    void beginMetadata(const std::shared_ptr<Node>& node, const MetadataChange& change,
                       Batch& batch, const Done& done);
    std::shared_ptr<Content> makeContent(std::string lines, Charge stored);
    static void show(ObjectNode& node, const Metadata& metadata,
                     const std::shared_ptr<Content>& content, ReadinessListener& listener);
    int checkTarget(const DirectoryNode& newFolder, std::string_view newName, const Node& moved,
                    bool mayReplace) const;
    Metadata metadataFor(const DirectoryNode& folder, Owner owner, mode_t mode) const;
    static void add(DirectoryNode& folder, const std::shared_ptr<Node>& node);
    void take(DirectoryNode& folder, std::string_view name) noexcept;
    void remove(DirectoryNode& folder, const std::shared_ptr<Node>& node) noexcept;

    ReadinessListener& m_listener;
    Accounts& m_accounts;
    Disk m_disk;
    Changes m_changes;
    std::shared_ptr<DirectoryNode> m_root;
    std::uint64_t m_nextNumber = 1;   // of a node; the root takes 1
    std::uint64_t m_nextClient = 1;   // the connection id of the next client
    std::uint64_t m_nextContent = 1;  // 0 is the content that nobody has seen
    const std::shared_ptr<Content> m_nothing = makeContent({}, {});
};
