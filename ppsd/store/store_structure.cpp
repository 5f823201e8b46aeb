// Changes of the tree itself: what is made, removed and renamed.
//
// The kernel lets one change at a time at the entries of a folder, so that two that are on their
// way to the disk together are never about the same name. What has to be allocated is allocated
// before the disk is asked, so that nothing can fail behind it.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "ppsd/store/limits.hpp"
#include "ppsd/store/store.hpp"

namespace {

constexpr mode_t kPermissionBits = 07777;

}  // namespace

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
        error = access.canServe() ? serve(*folder, name.name, metadataFor(*folder, owner, mode),
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

// What is made in a folder with the set-group-ID bit belongs to the folder's group, as anywhere.
Metadata Store::metadataFor(const DirectoryNode& folder, Owner owner, mode_t mode) const {
    const bool inherits = (folder.metadata.mode & S_ISGID) != 0;
    return {owner.user, inherits ? folder.metadata.group : owner.group, mode & kPermissionBits,
            currentTime()};
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
                              folder->metadata.modified = currentTime();
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
                              folder->metadata.modified = currentTime();
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
                folder->metadata.modified = newFolder->metadata.modified = currentTime();
            }
            done(failure);
        });
    if (clearsFolder) {
        static_cast<DirectoryNode&>(*replaced).isLeaving = true;
    }
}
