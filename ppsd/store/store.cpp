// Every change takes the same way: work out the new state, bring it to the disk, and only then let
// it be seen. A failing disk therefore costs the writer an error and nobody a surprise. What has to
// be allocated is allocated before the disk is asked, so that nothing can fail behind it. Served
// objects never touch the disk.
//
// The kernel lets one change at a time at the entries of a folder, so that two that are on their
// way to the disk together are never about the same name.

#include "ppsd/store/store.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>
#include <utility>
#include <vector>

#include "ppsd/store/attributes.hpp"
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

std::string pathOf(const DirectoryNode& folder, std::string_view name) {
    const std::string path = pathOf(folder);
    return path.empty() ? std::string(name) : path + "/" + std::string(name);
}

// Folders above this one, and itself: 0 for the root.
int levelOf(const DirectoryNode& folder) {
    int level = 0;
    for (const DirectoryNode* at = &folder; at->parent != nullptr; at = at->parent) {
        ++level;
    }
    return level;
}

// Levels of folders that a node brings along: 0 for an object.
int heightOf(const Node& node) {
    if (node.kind != NodeKind::kDirectory) {
        return 0;
    }
    int highest = 0;
    for (const auto& [name, child] : static_cast<const DirectoryNode&>(node).stored) {
        highest = std::max(highest, heightOf(*child));
    }
    return highest + 1;
}

// A server reads what clients write and writes what they read: one that cannot do both is none.
bool mayServe(const Store::Access& access) {
    return access.reads && access.writes;
}

Metadata changed(Metadata metadata, const Store::MetadataChange& change) {
    metadata.mode = change.mode.value_or(metadata.mode);
    metadata.owner = change.owner.value_or(metadata.owner);
    metadata.group = change.group.value_or(metadata.group);
    metadata.modified = change.modified.value_or(metadata.modified);
    return metadata;
}

}  // namespace

Store::Store(std::string folder, ReadinessListener& listener, Report report, Accounts& accounts)
    : m_listener(listener),
      m_accounts(accounts),
      m_disk(std::move(folder), std::move(report)),
      m_changes(m_disk) {}

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

std::shared_ptr<Content> Store::makeContent(std::string lines, Charge stored) {
    return std::make_shared<Content>(m_nextContent++, std::move(lines), std::move(stored));
}

// What is there already counts, share or not.
void Store::loadFolder(const std::shared_ptr<DirectoryNode>& folder) {
    for (Disk::Entry& entry : m_disk.load(pathOf(*folder))) {
        const uid_t owner = entry.record.metadata.owner;
        std::shared_ptr<Node> child;
        if (entry.isDirectory) {
            child = std::make_shared<DirectoryNode>(m_nextNumber++, std::move(entry.name),
                                                    entry.record.metadata);
        } else {
            auto object = std::make_shared<ObjectNode>(m_nextNumber++, std::move(entry.name),
                                                       entry.record.metadata);
            Charge stored(m_accounts, owner, Holding::kStored);
            stored.growAnyway(entry.record.lines.size());
            object->content = makeContent(std::move(entry.record.lines), std::move(stored));
            child = std::move(object);
        }
        child->place = Charge(m_accounts, owner, Holding::kObjects);
        child->place.growAnyway(1);
        add(*folder, child);
        if (child->kind == NodeKind::kDirectory) {
            loadFolder(std::static_pointer_cast<DirectoryNode>(child));
        }
    }
}

void Store::add(DirectoryNode& folder, const std::shared_ptr<Node>& node) {
    node->parent = &folder;
    folder.stored[node->name] = node;
}

bool Store::isRemoved(const DirectoryNode& folder) const {
    return folder.isLeaving || (folder.parent == nullptr && &folder != m_root.get());
}

bool Store::isStored(const Node& node) const {
    return node.kind != NodeKind::kServed && (node.parent != nullptr || &node == m_root.get());
}

// Takes a stored node out of the tree; those who hold it keep it.
void Store::take(DirectoryNode& folder, std::string_view name) noexcept {
    const auto found = folder.stored.find(name);
    found->second->parent = nullptr;
    folder.stored.erase(found);
    folder.listing.reset();
}

// What is no longer in the tree counts for those who have it open, and not for whoever made it.
void Store::remove(DirectoryNode& folder, const std::shared_ptr<Node>& node) noexcept {
    take(folder, node->name);
    node->place = {};
    if (node->kind == NodeKind::kObject) {
        auto& object = static_cast<ObjectNode&>(*node);
        object.content->stored = {};
        keepRemoved(object);
    }
}

// Lets all who have a removed object open keep its text who have room for it. Without any it goes.
void Store::keepRemoved(ObjectNode& node) noexcept {
    for (ObjectFile* file : node.openFiles) {
        file->letGo();  // all of them, as a user's files share what they keep
    }
    for (ObjectFile* file : node.openFiles) {
        file->keep();
    }
    if (node.keepers == 0 && !node.content->lines.empty()) {
        show(node, node.metadata, m_nothing, m_listener);
    }
}

std::shared_ptr<Node> Store::find(const DirectoryNode& folder, std::string_view name) const {
    const auto served = folder.served.find(name);
    if (served != folder.served.end()) {
        return served->second;
    }
    const auto stored = folder.stored.find(name);
    return stored == folder.stored.end() ? nullptr : stored->second;
}

std::shared_ptr<Listing> Store::list(DirectoryNode& folder, uid_t reader,
                                     std::shared_ptr<Charge>& charge) {
    std::shared_ptr<Listing> listing = folder.listing.lock();
    if (listing == nullptr) {
        const std::uint64_t parent =
            folder.parent == nullptr ? folder.number : folder.parent->number;
        std::vector<Listing::Entry> entries{{".", folder.number, true}, {"..", parent, true}};
        for (const auto& [name, node] : folder.served) {
            entries.push_back({name, node->number, false});
        }
        for (const auto& [name, node] : folder.stored) {
            if (!folder.served.contains(name)) {
                entries.push_back({name, node->number, node->kind == NodeKind::kDirectory});
            }
        }
        listing = std::make_shared<Listing>(std::move(entries));
        folder.listing = listing;
    }
    charge = listing->pin(m_accounts, reader);
    return charge == nullptr ? nullptr : listing;
}

int Store::takePlace(uid_t user, Charge& place) {
    place = Charge(m_accounts, user, Holding::kFiles);
    return place.grow(1) ? 0 : ENFILE;
}

void Store::open(const std::shared_ptr<Node>& node, OpenOptions options, Access access,
                 const Opened& opened) {
    const uid_t user = access.opener.user;
    std::unique_ptr<OpenFile> file;
    std::shared_ptr<Node> result = node;
    int error = 0;
    if (node->kind == NodeKind::kDirectory) {
        error = EISDIR;
    } else if (node->kind == NodeKind::kServed) {
        error = openServed(std::static_pointer_cast<ServedNode>(node), options, access, file);
    } else if (options.clients) {
        error = ENOENT;  // nobody serves it
    } else if (options.server) {
        // Whoever serves a name answers for it: reading right, which is enough to open it as a
        // client or to watch it, must not be enough to take it over.
        if (node->parent == nullptr) {
            error = ESTALE;
        } else if (!mayServe(access) || (user != 0 && user != node->metadata.owner)) {
            error = EACCES;
        } else if (node->parent->served.contains(node->name)) {
            error = EBUSY;
        } else {
            error = serve(*node->parent, node->name, node->metadata, options, user, result, file);
        }
    } else {
        const auto object = std::static_pointer_cast<ObjectNode>(node);
        error = openStored(object, options, user, file);
        if (error == 0 && access.truncates) {
            const auto kept = std::make_shared<std::unique_ptr<OpenFile>>(std::move(file));
            truncate(user, node, [opened, node, kept](int truncateError) {
                if (truncateError == 0) {
                    opened(0, node, std::move(*kept));
                } else {
                    opened(truncateError, nullptr, nullptr);
                }
            });
            return;
        }
    }
    opened(error, error == 0 ? result : nullptr, std::move(file));
}

int Store::openServed(const std::shared_ptr<ServedNode>& node, OpenOptions options, Access access,
                      std::unique_ptr<OpenFile>& file) {
    if (options.server) {
        return EBUSY;
    }
    if (node->parent == nullptr) {
        return ENOENT;
    }
    Charge place;
    int error = takePlace(access.opener.user, place);
    if (error == 0 && options.clients) {
        const uid_t user = access.opener.user;
        if (access.writes ||
            (user != 0 && user != node->metadata.owner && user != node->channel->serverUser())) {
            return EACCES;
        }
        std::string text = node->channel->listClients();
        Charge charge(m_accounts, user, Holding::kMemory);
        if (!charge.grow(text.size())) {
            return ENOBUFS;
        }
        file = std::make_unique<ClientListFile>(std::move(text), options, std::move(place),
                                                std::move(charge));
        return 0;
    }
    const std::uint64_t id = m_nextClient;
    if (error == 0) {
        error = node->channel->admit(id, access.opener);
    }
    if (error != 0) {
        return error;
    }
    ++m_nextClient;
    try {
        file = std::make_unique<ClientFile>(node->channel, options, std::move(place), id,
                                            access.opener, access.reads);
    } catch (...) {
        node->channel->dismiss(id, access.opener);
        throw;
    }
    return 0;
}

int Store::openStored(const std::shared_ptr<ObjectNode>& node, OpenOptions options, uid_t user,
                      std::unique_ptr<OpenFile>& file) {
    if (node->parent != nullptr && node->parent->served.contains(node->name)) {
        return ESTALE;  // a server came between the look-up and this
    }
    Charge place;
    const int error = takePlace(user, place);
    if (error == 0) {
        file = makeFile(node, options, std::move(place));
    }
    return error;
}

std::unique_ptr<OpenFile> Store::makeFile(const std::shared_ptr<ObjectNode>& node,
                                          OpenOptions options, Charge place) {
    auto file = std::make_unique<ObjectFile>(
        node, options, std::move(place), m_accounts,
        [this](const std::shared_ptr<ObjectNode>& object, uid_t writer, std::string_view text,
               const Done& done) { write(object, writer, text, done); },
        [this](ObjectNode& object) {
            const bool isRemoved = object.parent == nullptr;
            if (isRemoved && object.keepers == 0 && !object.content->lines.empty()) {
                keepRemoved(object);  // by those who had no room before
            }
        });
    if (node->parent == nullptr) {
        file->keep();
    }
    return file;
}

// What a new entry of that name would meet.
int Store::checkNew(const DirectoryNode& folder, std::string_view name) const {
    if (find(folder, name) != nullptr) {
        return EEXIST;
    }
    return isRemoved(folder) ? ENOENT : 0;
}

void Store::create(const std::shared_ptr<DirectoryNode>& folder, const ObjectName& name,
                   Owner owner, mode_t mode, Access access, const Opened& opened) {
    const OpenOptions options = name.options;
    const std::shared_ptr<Node> present = find(*folder, name.name);
    int error = options.clients ? ENOENT : checkNew(*folder, name.name);
    if (error == EEXIST && options.server && present->kind == NodeKind::kServed) {
        error = EBUSY;
    }
    if (error == 0 && options.server) {
        std::shared_ptr<Node> node;
        std::unique_ptr<OpenFile> file;
        error = mayServe(access) ? serve(*folder, name.name, metadataFor(*folder, owner, mode),
                                         options, owner.user, node, file)
                                 : EACCES;
        opened(error, node, std::move(file));
        return;
    }
    if (error != 0) {
        opened(error, nullptr, nullptr);
        return;
    }
    m_changes.add(
        owner.user, true,
        [this, folder, owner, mode, options, opened, text = std::string(name.name)](Batch& batch,
                                                                                    const Done&) {
            beginCreate(folder, text, owner, mode, opened, options, batch);
        },
        [opened](int failure) { opened(failure, nullptr, nullptr); });
}

void Store::beginCreate(const std::shared_ptr<DirectoryNode>& folder, const std::string& name,
                        Owner owner, mode_t mode, const Opened& opened, OpenOptions options,
                        Batch& batch) {
    Charge place(m_accounts, owner.user, Holding::kObjects);
    const auto filePlace = std::make_shared<Charge>();
    int error = checkNew(*folder, name);
    if (error == 0 && !place.grow(1)) {
        error = EDQUOT;
    }
    if (error == 0) {
        error = takePlace(owner.user, *filePlace);
    }
    if (error != 0) {
        opened(error, nullptr, nullptr);
        return;
    }
    const Metadata metadata = metadataFor(*folder, owner, mode);
    const auto object = std::make_shared<ObjectNode>(m_nextNumber++, name, metadata);
    object->place = std::move(place);
    object->content = makeContent({}, {});
    // The folder's own way of keeping it, made beforehand.
    const auto entry = std::make_shared<DirectoryNode::Stored>();
    entry->emplace(name, object);
    batch.save(pathOf(*folder, name), false, {metadata, {}},
               [this, folder, object, entry, options, opened, filePlace](int failure) {
                   std::unique_ptr<OpenFile> file;
                   if (failure == 0) {
                       object->parent = folder.get();
                       folder->stored.merge(*entry);
                       folder->listing.reset();
                       folder->metadata.modified = object->metadata.modified;
                       try {
                           file = makeFile(object, options, std::move(*filePlace));
                       } catch (const std::bad_alloc&) {
                           failure = ENOMEM;
                       }
                   }
                   opened(failure, failure == 0 ? object : nullptr, std::move(file));
               });
}

int Store::serve(DirectoryNode& folder, std::string_view name, const Metadata& metadata,
                 OpenOptions options, uid_t user, std::shared_ptr<Node>& node,
                 std::unique_ptr<OpenFile>& file) {
    if (isRemoved(folder)) {
        return ENOENT;
    }
    Charge place;
    const int error = takePlace(user, place);
    if (error != 0) {
        return error;
    }
    auto served = std::make_shared<ServedNode>(m_nextNumber++, std::string(name), metadata);
    served->channel = std::make_shared<Channel>(served->name, m_listener, m_accounts);
    auto server =
        std::make_unique<ServerFile>(served->channel, options, std::move(place), user, [served] {
            if (served->parent != nullptr) {
                DirectoryNode& parent = *served->parent;
                served->parent = nullptr;
                parent.served.erase(served->name);
                parent.listing.reset();
            }
        });
    folder.served[served->name] = served;
    served->parent = &folder;
    folder.listing.reset();
    node = std::move(served);
    file = std::move(server);
    return 0;
}

void Store::write(const std::shared_ptr<ObjectNode>& node, uid_t user, std::string_view text,
                  const Done& done) {
    std::vector<AttributeChange> changes;
    int error = text.size() > kObjectWriteMaxBytes ? EMSGSIZE : 0;
    if (error == 0) {
        error = parseChanges(text, ObjectLines::kLeadingIgnored, changes);
    }
    // Kept until its turn has come.
    const auto charge = std::make_shared<Charge>(m_accounts, user, Holding::kMemory);
    if (error == 0 && !charge->grow(text.size())) {
        error = ENOBUFS;
    }
    if (error != 0) {
        done(error);
        return;
    }
    edit(
        node, user,
        [charge, kept = std::string(text)](std::string_view lines) {
            std::vector<AttributeChange> parsed;
            parseChanges(kept, ObjectLines::kLeadingIgnored, parsed);
            return mergeChanges(lines, parsed);
        },
        done);
}

void Store::edit(const std::shared_ptr<ObjectNode>& node, uid_t user, Edit edit, const Done& done) {
    m_changes.add(
        user, true,
        [this, node, user, edit = std::move(edit)](Batch& batch, const Done& end) {
            beginEdit(node, user, edit, batch, end);
        },
        done);
}

void Store::beginEdit(const std::shared_ptr<ObjectNode>& node, uid_t user, const Edit& edit,
                      Batch& batch, const Done& done) {
    const std::shared_ptr<Content> before = node->latestContent();
    std::string lines = edit(before->lines);
    if (lines == before->lines && node->changesComing == 0) {
        done(0);
        return;
    }
    if (textBytes(node->name, lines) > kObjectTextMaxBytes) {
        done(ENOSPC);
        return;
    }
    if (node->parent == nullptr) {
        done(editRemoved(*node, std::move(lines)));
        return;
    }
    // The new content counts when it is there, the old one until then: only what it grows by has to
    // be within the share. Whoever makes less of an object may always do so; without room, it goes
    // on counting for the one before.
    const std::size_t freed = before->stored.amountOf(user);
    const bool hasRoom =
        lines.size() <= freed || m_accounts.hasRoom(user, Holding::kStored, lines.size() - freed);
    if (!hasRoom && lines.size() > before->lines.size()) {
        done(EDQUOT);
        return;
    }
    Charge stored(m_accounts, hasRoom ? user : before->stored.user(), Holding::kStored);
    stored.growAnyway(lines.size());
    Metadata metadata = node->latestMetadata();
    metadata.modified = now();
    const std::shared_ptr<Content> content = makeContent(std::move(lines), std::move(stored));
    batch.save(pathOf(*node), false, {metadata, content->lines},
               [this, node, metadata, content, done](int error) {
                   if (--node->changesComing == 0) {
                       node->contentComing = nullptr;
                   }
                   // Of those that went to the disk together, the last is there.
                   if (error == 0 && node->changesComing == 0) {
                       show(*node, metadata, content, m_listener);
                   }
                   done(error);
               });
    ++node->changesComing;
    node->metadataComing = metadata;
    node->contentComing = content;
}

// A removed object is nowhere on the disk, and counts for those who have it open: one of them has
// to have room for its new text beside the old one.
int Store::editRemoved(ObjectNode& node, std::string lines) {
    const std::shared_ptr<Content> content = makeContent(std::move(lines), {});
    std::shared_ptr<Charge> charge;
    for (auto file = node.openFiles.begin(); file != node.openFiles.end() && !charge; ++file) {
        charge = content->pinInHalf(m_accounts, (*file)->user());
    }
    if (charge == nullptr && !content->lines.empty()) {
        return ENOBUFS;
    }
    Metadata metadata = node.metadata;
    metadata.modified = now();
    show(node, metadata, content, m_listener);
    keepRemoved(node);
    return 0;
}

void Store::show(ObjectNode& node, const Metadata& metadata,
                 const std::shared_ptr<Content>& content, ReadinessListener& listener) {
    node.metadata = metadata;
    if (node.content == content) {
        return;
    }
    node.content->stored = {};  // whoever still reads it pays for that
    node.content = content;
    node.differences.clear();
    for (ObjectFile* file : node.openFiles) {
        listener.readinessChanged(*file);
    }
}

void Store::truncate(uid_t user, const std::shared_ptr<Node>& node, const Done& done) {
    if (node->kind == NodeKind::kObject) {
        edit(
            std::static_pointer_cast<ObjectNode>(node), user,
            [](std::string_view) { return std::string(); }, done);
        return;
    }
    done(node->kind == NodeKind::kDirectory ? EISDIR : 0);
}

void Store::setMetadata(uid_t user, const std::shared_ptr<Node>& node, const MetadataChange& change,
                        const Done& done) {
    if (!isStored(*node)) {
        node->metadata = changed(node->metadata, change);
        done(0);
        return;
    }
    m_changes.add(
        user, true,
        [this, node, change](Batch& batch, const Done& end) {
            beginMetadata(node, change, batch, end);
        },
        done);
}

void Store::beginMetadata(const std::shared_ptr<Node>& node, const MetadataChange& change,
                          Batch& batch, const Done& done) {
    const Metadata metadata = changed(node->latestMetadata(), change);
    if (metadata == node->latestMetadata() && node->changesComing == 0) {
        done(0);
        return;
    }
    if (!isStored(*node)) {
        node->metadata = metadata;
        done(0);
        return;
    }
    const bool isFolder = node->kind == NodeKind::kDirectory;
    std::shared_ptr<ObjectNode> object;
    std::shared_ptr<Content> content;
    if (!isFolder) {
        object = std::static_pointer_cast<ObjectNode>(node);
        content = object->latestContent();
    }
    batch.save(pathOf(*node), isFolder, {metadata, isFolder ? std::string() : content->lines},
               [this, node, object, content, metadata, done](int error) {
                   if (--node->changesComing == 0 && object != nullptr) {
                       object->contentComing = nullptr;
                   }
                   if (error == 0 && node->changesComing == 0) {
                       if (object != nullptr) {
                           show(*object, metadata, content, m_listener);
                       } else {
                           node->metadata = metadata;
                       }
                   }
                   done(error);
               });
    ++node->changesComing;
    node->metadataComing = metadata;
    if (object != nullptr) {
        object->contentComing = content;
    }
}

// What is made in a folder with the set-group-ID bit belongs to the folder's group, as anywhere.
Metadata Store::metadataFor(const DirectoryNode& folder, Owner owner, mode_t mode) const {
    const bool inherits = (folder.metadata.mode & S_ISGID) != 0;
    return {owner.user, inherits ? folder.metadata.group : owner.group, mode & kPermissionBits,
            now()};
}

void Store::makeDirectory(const std::shared_ptr<DirectoryNode>& folder, std::string_view name,
                          Owner owner, mode_t mode, const Made& made) {
    m_changes.add(
        owner.user, false,
        [this, folder, owner, mode, made, text = std::string(name)](Batch& batch, const Done&) {
            beginMakeDirectory(folder, text, owner, mode, made, batch);
        },
        [made](int error) { made(error, nullptr); });
}

void Store::beginMakeDirectory(const std::shared_ptr<DirectoryNode>& folder,
                               const std::string& name, Owner owner, mode_t mode, const Made& made,
                               Batch& batch) {
    Charge place(m_accounts, owner.user, Holding::kObjects);
    int error = checkNew(*folder, name);
    if (error == 0 && levelOf(*folder) >= kFolderLevelsMax) {
        error = ENAMETOOLONG;
    }
    if (error == 0 && !place.grow(1)) {
        error = EDQUOT;
    }
    if (error != 0) {
        made(error, nullptr);
        return;
    }
    Metadata metadata = metadataFor(*folder, owner, mode);
    metadata.mode |= folder->metadata.mode & S_ISGID;
    const auto node = std::make_shared<DirectoryNode>(m_nextNumber++, name, metadata);
    node->place = std::move(place);
    const auto entry = std::make_shared<DirectoryNode::Stored>();
    entry->emplace(name, node);
    batch.run([this, path = pathOf(*folder, name),
               metadata] { return m_disk.makeDirectory(path, metadata); },
              [folder, node, entry, made](int failure) {
                  if (failure == 0) {
                      node->parent = folder.get();
                      folder->stored.merge(*entry);
                      folder->listing.reset();
                      folder->metadata.modified = node->metadata.modified;
                  }
                  made(failure, failure == 0 ? node : nullptr);
              });
}

void Store::removeDirectory(uid_t user, const std::shared_ptr<DirectoryNode>& folder,
                            std::string_view name, const Done& done) {
    m_changes.add(
        user, false,
        [this, folder, text = std::string(name)](Batch& batch, const Done& end) {
            const std::shared_ptr<Node> node = find(*folder, text);
            if (node == nullptr || node->kind != NodeKind::kDirectory) {
                end(node == nullptr ? ENOENT : ENOTDIR);
                return;
            }
            const auto removed = std::static_pointer_cast<DirectoryNode>(node);
            if (!removed->isEmpty()) {
                end(ENOTEMPTY);
                return;
            }
            batch.run([this, path = pathOf(*node)] { return m_disk.removeDirectory(path); },
                      [this, folder, removed, end](int error) {
                          removed->isLeaving = false;
                          if (error == 0) {
                              remove(*folder, removed);
                              folder->metadata.modified = now();
                          }
                          end(error);
                      });
            removed->isLeaving = true;
        },
        done);
}

void Store::removeObject(uid_t user, const std::shared_ptr<DirectoryNode>& folder,
                         std::string_view name, const Done& done) {
    m_changes.add(
        user, false,
        [this, folder, text = std::string(name)](Batch& batch, const Done& end) {
            const std::shared_ptr<Node> node = find(*folder, text);
            if (node == nullptr || node->kind != NodeKind::kObject) {
                end(node == nullptr ? ENOENT : node->kind == NodeKind::kDirectory ? EISDIR : EBUSY);
                return;
            }
            batch.run([this, path = pathOf(*node)] { return m_disk.removeObject(path); },
                      [this, folder, node, end](int error) {
                          if (error == 0) {
                              remove(*folder, node);
                              folder->metadata.modified = now();
                          }
                          end(error);
                      });
        },
        done);
}

// Whether `moved` may take the place of what stands there: an object of another object, a folder of
// an empty folder.
int Store::checkTarget(const DirectoryNode& newFolder, std::string_view newName, const Node& moved,
                       bool mayReplace) const {
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
    if (target->kind == NodeKind::kObject) {
        return moved.kind == NodeKind::kDirectory ? ENOTDIR : 0;
    }
    if (moved.kind != NodeKind::kDirectory) {
        return EISDIR;
    }
    return static_cast<const DirectoryNode&>(*target).isEmpty() ? 0 : ENOTEMPTY;
}

void Store::rename(uid_t user, const std::shared_ptr<DirectoryNode>& folder, std::string_view name,
                   const std::shared_ptr<DirectoryNode>& newFolder, std::string_view newName,
                   bool mayReplace, const Done& done) {
    m_changes.add(
        user, false,
        [this, folder, newFolder, mayReplace, from = std::string(name), to = std::string(newName)](
            Batch& batch, const Done& end) {
            beginRename(folder, from, newFolder, to, mayReplace, batch, end);
        },
        done);
}

void Store::beginRename(const std::shared_ptr<DirectoryNode>& folder, const std::string& name,
                        const std::shared_ptr<DirectoryNode>& newFolder, const std::string& newName,
                        bool mayReplace, Batch& batch, const Done& done) {
    const std::shared_ptr<Node> node = find(*folder, name);
    int error = node == nullptr || isRemoved(*newFolder) ? ENOENT : 0;
    if (error == 0 && node->kind == NodeKind::kServed) {
        error = EBUSY;
    }
    const bool isSame = folder == newFolder && name == newName;
    if (error == 0 && isSame) {
        done(mayReplace ? 0 : EEXIST);
        return;
    }
    if (error == 0) {
        error = checkTarget(*newFolder, newName, *node, mayReplace);
    }
    if (error == 0 && levelOf(*newFolder) + heightOf(*node) > kFolderLevelsMax) {
        error = ENAMETOOLONG;
    }
    if (error != 0) {
        done(error);
        return;
    }
    const std::shared_ptr<Node> replaced = find(*newFolder, newName);
    const bool clearsFolder = replaced != nullptr && replaced->kind == NodeKind::kDirectory;
    // Empty once the folder that stood there is gone, even if the rest fails.
    const auto cleared = std::make_shared<bool>(false);
    const auto entry = std::make_shared<DirectoryNode::Stored>();
    entry->emplace(newName, node);
    batch.run(
        [this, cleared, clearsFolder, from = pathOf(*node), to = pathOf(*newFolder, newName)] {
            int failure = clearsFolder ? m_disk.removeDirectory(to) : 0;
            *cleared = clearsFolder && failure == 0;
            return failure == 0 ? m_disk.rename(from, to) : failure;
        },
        [this, folder, newFolder, node, replaced, entry, cleared, clearsFolder, done,
         ownName = std::string(newName)](int failure) mutable {
            if (clearsFolder) {
                static_cast<DirectoryNode&>(*replaced).isLeaving = false;
            }
            if (replaced != nullptr && (failure == 0 || *cleared)) {
                remove(*newFolder, replaced);
            }
            if (failure == 0) {
                take(*folder, node->name);
                node->name.swap(ownName);
                node->parent = newFolder.get();
                newFolder->stored.merge(*entry);
                newFolder->listing.reset();
                folder->metadata.modified = newFolder->metadata.modified = now();
            }
            done(failure);
        });
    if (clearsFolder) {
        static_cast<DirectoryNode&>(*replaced).isLeaving = true;
    }
}
