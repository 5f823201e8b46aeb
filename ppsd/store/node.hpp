// The tree: folders, ordinary objects and served objects.
//
// A folder owns its entries through shared_ptr; whoever has an entry open, or has told the kernel
// of it, shares it, so that a removed object lives on for them as it does in any file system. A
// served object may stand in front of a stored object of the same name; while it is served, the
// name means the served one.

#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ppsd/store/accounts.hpp"
#include "ppsd/store/content.hpp"
#include "ppsd/store/record.hpp"

class Channel;
class DirectoryNode;
class ObjectFile;

enum class NodeKind { kDirectory, kObject, kServed };

class Node {
  public:
    Node(NodeKind nodeKind, std::uint64_t nodeNumber, std::string nodeName, Metadata nodeMetadata)
        : kind(nodeKind), number(nodeNumber), name(std::move(nodeName)), metadata(nodeMetadata) {}
    virtual ~Node() = default;
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    const NodeKind kind;
    const std::uint64_t number;  // 1 for the root; never used twice while the store lives
    std::string name;            // without options; empty for the root
    Metadata metadata;
    DirectoryNode* parent = nullptr;  // null for the root and for what was removed
    Charge place;                     // among the objects of whoever made it

    // Changes that are on their way to the disk, and what they will have made of the metadata:
    // others that come meanwhile start from there. Nobody else sees it.
    int changesComing = 0;
    Metadata metadataComing;

    const Metadata& latestMetadata() const { return changesComing > 0 ? metadataComing : metadata; }
};

class ServedNode : public Node {
  public:
    ServedNode(std::uint64_t nodeNumber, std::string nodeName, Metadata nodeMetadata)
        : Node(NodeKind::kServed, nodeNumber, std::move(nodeName), nodeMetadata) {}

    std::shared_ptr<Channel> channel;  // never null once the node is in the tree
};

class ObjectNode : public Node {
  public:
    ObjectNode(std::uint64_t nodeNumber, std::string nodeName, Metadata nodeMetadata)
        : Node(NodeKind::kObject, nodeNumber, std::move(nodeName), nodeMetadata) {}

    const std::shared_ptr<Content>& latestContent() const {
        return contentComing ? contentComing : content;
    }

    std::shared_ptr<Content> content;  // never null once the node is in the tree
    std::shared_ptr<Content> contentComing;
    std::set<ObjectFile*> openFiles;
    // Whether the content differs from others, by their numbers, as far as anybody has asked.
    std::map<std::uint64_t, bool> differences;
    std::size_t keepers = 0;  // of openFiles, once the object was removed: see ObjectFile::keep
};

// What a folder holds at one time. Made when somebody lists the folder, and kept by those who do.
struct Listing : public Shared {
    struct Entry {
        std::string name;
        std::uint64_t number;
        bool isDirectory;
    };

    explicit Listing(std::vector<Entry> list) : Shared(bytesOf(list)), entries(std::move(list)) {}

    const std::vector<Entry> entries;

  private:
    static std::size_t bytesOf(const std::vector<Entry>& list) {
        std::size_t bytes = 0;
        for (const Entry& entry : list) {
            bytes += sizeof entry + entry.name.size();
        }
        return bytes;
    }
};

class DirectoryNode : public Node {
  public:
    DirectoryNode(std::uint64_t nodeNumber, std::string nodeName, Metadata nodeMetadata)
        : Node(NodeKind::kDirectory, nodeNumber, std::move(nodeName), nodeMetadata) {}

    using Stored = std::map<std::string, std::shared_ptr<Node>, std::less<>>;

    bool isEmpty() const { return stored.empty() && served.empty(); }

    Stored stored;
    std::map<std::string, std::shared_ptr<ServedNode>, std::less<>> served;
    std::weak_ptr<Listing> listing;  // of what is there now; forgotten with every change
    bool isLeaving = false;          // its removal is on its way to the disk
};

// Relative to the root, for which it is empty: of a node, and of a name in a folder.
std::string pathOf(const Node& node);
std::string pathOf(const DirectoryNode& folder, std::string_view name);

// Folders above this one, and itself: 0 for the root.
int levelOf(const DirectoryNode& folder);
// Levels of folders that a node brings along: 0 for an object.
int heightOf(const Node& node);

// For the metadata of what changes.
timespec currentTime();
