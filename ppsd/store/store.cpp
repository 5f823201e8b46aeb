// What is in the tree, and how it is opened and served. Changes of the tree are in
// store_structure.cpp, those of what stands in it in store_contents.cpp.

#include "ppsd/store/store.hpp"

#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "ppsd/store/channel.hpp"
#include "ppsd/store/object_file.hpp"

namespace {

constexpr mode_t kRootMode = 0755;

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
    const Metadata fallback{geteuid(), getegid(), kRootMode, currentTime()};
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
        } else if (!access.canServe() || (user != 0 && user != node->metadata.owner)) {
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
