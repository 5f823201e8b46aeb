// Changes of what stands in the tree: the text of an object, and owner, group, mode and time of
// anything.
//
// Every change takes the same way: work out the new state, bring it to the disk, and only then let
// it be seen. A failing disk therefore costs the writer an error and nobody a surprise. Served
// objects never touch the disk.

#include <cerrno>
#include <utility>
#include <vector>

#include "ppsd/store/attributes.hpp"
#include "ppsd/store/limits.hpp"
#include "ppsd/store/object_file.hpp"
#include "ppsd/store/store.hpp"

namespace {

Metadata changed(Metadata metadata, const Store::MetadataChange& change) {
    metadata.mode = change.mode.value_or(metadata.mode);
    metadata.owner = change.owner.value_or(metadata.owner);
    metadata.group = change.group.value_or(metadata.group);
    metadata.modified = change.modified.value_or(metadata.modified);
    return metadata;
}

}  // namespace

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
    metadata.modified = currentTime();
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
    metadata.modified = currentTime();
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
