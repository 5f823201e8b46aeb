// Every change takes the same way: work out the new state, bring it to the disk, and only then let
// it be seen. A failing disk therefore costs the writer an error and nobody a surprise. Served
// objects never touch the disk.

#include "ppsd/store/store.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "ppsd/store/channel.hpp"
#include "ppsd/store/limits.hpp"
#include "ppsd/store/object_file.hpp"

namespace {

constexpr mode_t kRootMode = 0755;
constexpr mode_t kPermissionBits = 07777;

timespec now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

// Of a node below the root, relative to it.
std::string pathOf(const Node& node) {
    if (node.parent == nullptr) {
        return {};
    }
    const std::string folder = pathOf(*node.parent);
    return folder.empty() ? node.name : folder + "/" + node.name;
}

// A server reads what clients write and writes what they read: one that cannot do both is none.
bool mayServe(const Store::Access& access) {
    return access.reads && access.writes;
}

std::string pathOf(const DirectoryNode& folder, std::string_view name) {
    const std::string path = pathOf(folder);
    return path.empty() ? std::string(name) : path + "/" + std::string(name);
}

}  // namespace

Store::Store(std::string folder, ReadinessListener& listener, Report report)
    : m_listener(listener), m_disk(std::move(folder), std::move(report)) {}

int Store::load() {
    const int error = m_disk.open();
    if (error != 0) {
        return error;
    }
    const Metadata fallback{geteuid(), getegid(), kRootMode, now()};
    m_root = std::make_shared<DirectoryNode>(m_nextNumber++, "", m_disk.loadRoot(fallback));
    loadFolder(m_root);
    return 0;
}

void Store::loadFolder(const std::shared_ptr<DirectoryNode>& folder) {
    for (Disk::Entry& entry : m_disk.load(pathOf(*folder))) {
        if (entry.isDirectory) {
            auto child = std::make_shared<DirectoryNode>(m_nextNumber++, std::move(entry.name),
                                                         entry.record.metadata);
            add(*folder, child);
            loadFolder(child);
            continue;
        }
        auto child = std::make_shared<ObjectNode>(m_nextNumber++, std::move(entry.name),
                                                  entry.record.metadata);
        child->attributes =
            std::make_shared<const AttributeList>(std::move(entry.record.attributes));
        add(*folder, child);
    }
}

void Store::add(DirectoryNode& folder, const std::shared_ptr<Node>& node) {
    node->parent = &folder;
    folder.stored[node->name] = node;
}

bool Store::isRemoved(const DirectoryNode& folder) const {
    return folder.parent == nullptr && &folder != m_root.get();
}

// Takes a stored node out of the tree; those who hold it keep it.
void Store::take(DirectoryNode& folder, std::string_view name) {
    const auto found = folder.stored.find(name);
    found->second->parent = nullptr;
    folder.stored.erase(found);
}

std::shared_ptr<Node> Store::find(const DirectoryNode& folder, std::string_view name) const {
    const auto served = folder.served.find(name);
    if (served != folder.served.end()) {
        return served->second;
    }
    const auto stored = folder.stored.find(name);
    return stored == folder.stored.end() ? nullptr : stored->second;
}

std::vector<Store::ListEntry> Store::list(const DirectoryNode& folder) const {
    std::vector<ListEntry> entries;
    for (const auto& [name, node] : folder.served) {
        entries.push_back({name, node->number, false});
    }
    for (const auto& [name, node] : folder.stored) {
        if (!folder.served.contains(name)) {
            entries.push_back({name, node->number, node->kind == NodeKind::kDirectory});
        }
    }
    return entries;
}

int Store::open(std::shared_ptr<Node>& node, OpenOptions options, Access access,
                std::unique_ptr<OpenFile>& file) {
    if (node->kind == NodeKind::kDirectory) {
        return EISDIR;
    }
    if (node->kind == NodeKind::kServed) {
        if (options.server) {
            return EBUSY;
        }
        if (node->parent == nullptr) {
            return ENOENT;
        }
        const auto served = std::static_pointer_cast<ServedNode>(node);
        file = std::make_unique<ClientFile>(served->channel, options, m_nextClient++, access.opener,
                                            access.reads);
        return 0;
    }
    if (!options.server) {
        return openStored(std::static_pointer_cast<ObjectNode>(node), options, access, file);
    }
    if (node->parent == nullptr) {
        return ESTALE;
    }
    // Whoever serves a name answers for it: reading right, which is enough to open it as a client
    // or to watch it, must not be enough to take it over.
    const uid_t user = access.opener.user;
    if (!mayServe(access) || (user != 0 && user != node->metadata.owner)) {
        return EACCES;
    }
    if (node->parent->served.contains(node->name)) {
        return EBUSY;
    }
    serve(*node->parent, node->name, node->metadata, options, node, file);
    return 0;
}

int Store::openStored(const std::shared_ptr<ObjectNode>& node, OpenOptions options, Access access,
                      std::unique_ptr<OpenFile>& file) {
    if (node->parent != nullptr && node->parent->served.contains(node->name)) {
        return ESTALE;  // a server came between the look-up and this
    }
    const int error = access.truncates ? truncate(*node) : 0;
    if (error == 0) {
        file = std::make_unique<ObjectFile>(
            node, options,
            [this](ObjectNode& object, std::string_view text) { return write(object, text); });
    }
    return error;
}

int Store::create(DirectoryNode& folder, const ObjectName& name, Owner owner, mode_t mode,
                  Access access, std::shared_ptr<Node>& node, std::unique_ptr<OpenFile>& file) {
    node = find(folder, name.name);
    if (node != nullptr) {
        return name.options.server && node->kind == NodeKind::kServed ? EBUSY : EEXIST;
    }
    if (isRemoved(folder)) {
        return ENOENT;
    }
    const Metadata metadata = metadataFor(folder, owner, mode);
    if (name.options.server) {
        if (!mayServe(access)) {
            return EACCES;
        }
        serve(folder, name.name, metadata, name.options, node, file);
        return 0;
    }
    const int error = m_disk.saveObject(pathOf(folder, name.name), {metadata, {}});
    if (error != 0) {
        return error;
    }
    auto object = std::make_shared<ObjectNode>(m_nextNumber++, std::string(name.name), metadata);
    add(folder, object);
    folder.metadata.modified = metadata.modified;
    node = object;
    return openStored(object, name.options, {access.reads, access.writes, false}, file);
}

void Store::serve(DirectoryNode& folder, std::string_view name, const Metadata& metadata,
                  OpenOptions options, std::shared_ptr<Node>& node,
                  std::unique_ptr<OpenFile>& file) {
    auto served = std::make_shared<ServedNode>(m_nextNumber++, std::string(name), metadata);
    served->channel = std::make_shared<Channel>(served->name, m_listener);
    served->parent = &folder;
    folder.served[served->name] = served;
    node = served;
    file = std::make_unique<ServerFile>(served->channel, options, [served] {
        DirectoryNode* parent = std::exchange(served->parent, nullptr);
        parent->served.erase(served->name);
    });
}

int Store::write(ObjectNode& node, std::string_view text) {
    if (text.size() > kObjectWriteMaxBytes) {
        return EMSGSIZE;
    }
    std::vector<AttributeChange> changes;
    const int error = parseChanges(text, ObjectLines::kLeadingIgnored, changes);
    if (error != 0) {
        return error;
    }
    return replaceAttributes(node, mergeChanges(*node.attributes, changes));
}

int Store::replaceAttributes(ObjectNode& node, AttributeList attributes) {
    if (attributes == *node.attributes) {
        return 0;
    }
    Record record{node.metadata, std::move(attributes)};
    record.metadata.modified = now();
    if (renderObject(node.name, record.attributes).size() > kObjectTextMaxBytes) {
        return ENOSPC;
    }
    const int error = node.parent == nullptr ? 0 : m_disk.saveObject(pathOf(node), record);
    if (error != 0) {
        return error;
    }
    node.metadata = record.metadata;
    node.attributes = std::make_shared<const AttributeList>(std::move(record.attributes));
    for (ObjectFile* file : node.openFiles) {
        m_listener.readinessChanged(*file);
    }
    return 0;
}

int Store::truncate(Node& node) {
    switch (node.kind) {
        case NodeKind::kDirectory:
            return EISDIR;
        case NodeKind::kServed:
            return 0;
        case NodeKind::kObject:
            return replaceAttributes(static_cast<ObjectNode&>(node), {});
    }
    return EINVAL;
}

int Store::setMetadata(Node& node, const Metadata& metadata) {
    const bool stored =
        node.kind != NodeKind::kServed && (node.parent != nullptr || &node == m_root.get());
    int error = 0;
    if (stored && node.kind == NodeKind::kDirectory) {
        error = m_disk.saveDirectory(pathOf(node), metadata);
    } else if (stored) {
        const auto& object = static_cast<const ObjectNode&>(node);
        error = m_disk.saveObject(pathOf(node), {metadata, *object.attributes});
    }
    if (error == 0) {
        node.metadata = metadata;
    }
    return error;
}

// What is made in a folder with the set-group-ID bit belongs to the folder's group, as anywhere.
Metadata Store::metadataFor(const DirectoryNode& folder, Owner owner, mode_t mode) const {
    const bool inherits = (folder.metadata.mode & S_ISGID) != 0;
    return {owner.user, inherits ? folder.metadata.group : owner.group, mode & kPermissionBits,
            now()};
}

int Store::makeDirectory(DirectoryNode& folder, std::string_view name, Owner owner, mode_t mode,
                         std::shared_ptr<Node>& node) {
    if (find(folder, name) != nullptr) {
        return EEXIST;
    }
    if (isRemoved(folder)) {
        return ENOENT;
    }
    Metadata metadata = metadataFor(folder, owner, mode);
    metadata.mode |= folder.metadata.mode & S_ISGID;
    const int error = m_disk.makeDirectory(pathOf(folder, name), metadata);
    if (error == 0) {
        node = std::make_shared<DirectoryNode>(m_nextNumber++, std::string(name), metadata);
        add(folder, node);
        folder.metadata.modified = metadata.modified;
    }
    return error;
}

int Store::removeDirectory(DirectoryNode& folder, std::string_view name) {
    const std::shared_ptr<Node> node = find(folder, name);
    if (node == nullptr) {
        return ENOENT;
    }
    if (node->kind != NodeKind::kDirectory) {
        return ENOTDIR;
    }
    if (!static_cast<const DirectoryNode&>(*node).isEmpty()) {
        return ENOTEMPTY;
    }
    const int error = m_disk.removeDirectory(pathOf(*node));
    if (error == 0) {
        take(folder, name);
        folder.metadata.modified = now();
    }
    return error;
}

int Store::removeObject(DirectoryNode& folder, std::string_view name) {
    const std::shared_ptr<Node> node = find(folder, name);
    if (node == nullptr) {
        return ENOENT;
    }
    if (node->kind != NodeKind::kObject) {
        return node->kind == NodeKind::kDirectory ? EISDIR : EBUSY;
    }
    const int error = m_disk.removeObject(pathOf(*node));
    if (error == 0) {
        take(folder, name);
        folder.metadata.modified = now();
    }
    return error;
}

// Whether `moved` may take the place of what stands there; an empty folder is cleared away, an
// object is left for the disk's rename to replace.
int Store::replaceTarget(DirectoryNode& newFolder, std::string_view newName, const Node& moved,
                         bool mayReplace) {
    const std::shared_ptr<Node> target = find(newFolder, newName);
    if (target == nullptr) {
        return 0;
    }
    if (!mayReplace) {
        return EEXIST;
    }
    if (target->kind == NodeKind::kServed) {
        return EBUSY;
    }
    if (target->kind == NodeKind::kDirectory) {
        return moved.kind == NodeKind::kDirectory ? removeDirectory(newFolder, newName) : EISDIR;
    }
    return moved.kind == NodeKind::kDirectory ? ENOTDIR : 0;
}

int Store::rename(DirectoryNode& folder, std::string_view name, DirectoryNode& newFolder,
                  std::string_view newName, bool mayReplace) {
    const std::shared_ptr<Node> node = find(folder, name);
    if (node == nullptr || isRemoved(newFolder)) {
        return ENOENT;
    }
    if (node->kind == NodeKind::kServed) {
        return EBUSY;
    }
    if (&folder == &newFolder && name == newName) {
        return mayReplace ? 0 : EEXIST;
    }
    int error = replaceTarget(newFolder, newName, *node, mayReplace);
    if (error == 0) {
        error = m_disk.rename(pathOf(*node), pathOf(newFolder, newName));
    }
    if (error != 0) {
        return error;
    }
    if (newFolder.stored.contains(newName)) {
        take(newFolder, newName);
    }
    take(folder, name);
    node->name = newName;
    add(newFolder, node);
    folder.metadata.modified = newFolder.metadata.modified = now();
    return 0;
}
