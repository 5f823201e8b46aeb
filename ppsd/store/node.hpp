// The tree: folders, ordinary objects and served objects.
//
// A folder owns its entries through shared_ptr; whoever has an entry open, or has told the kernel
// of it, shares it, so that a removed object lives on for them as it does in any file system. A
// served object may stand in front of a stored object of the same name; while it is served, the
// name means the served one.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "ppsd/store/attributes.hpp"
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

    // Never changed in place: a new list takes the place of the old one, so that an open file can
    // remember what it has seen by keeping the pointer.
    std::shared_ptr<const AttributeList> attributes = std::make_shared<const AttributeList>();
    std::set<ObjectFile*> openFiles;
};

class DirectoryNode : public Node {
  public:
    DirectoryNode(std::uint64_t nodeNumber, std::string nodeName, Metadata nodeMetadata)
        : Node(NodeKind::kDirectory, nodeNumber, std::move(nodeName), nodeMetadata) {}

    bool isEmpty() const { return stored.empty() && served.empty(); }

    std::map<std::string, std::shared_ptr<Node>, std::less<>> stored;
    std::map<std::string, std::shared_ptr<ServedNode>, std::less<>> served;
};
