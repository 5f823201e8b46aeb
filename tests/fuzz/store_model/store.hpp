// The tree of objects and folders: what each operation on it gives and leaves behind.
//
// Beside the real store this is as simple as can be: it is kept in memory alone, tells nobody of
// anything, and shares nothing with it but its bounds. Results of type int are 0 or an errno value.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tests/fuzz/store_model/file.hpp"
#include "tests/fuzz/store_model/node.hpp"

namespace model {

struct Access {
    bool reads = true;
    bool writes = true;
    bool truncates = false;
    Opener opener = {};
};

class Store {
  public:
    Store() { m_root->kind = Node::kFolder; }

    const std::shared_ptr<Node>& root() const { return m_root; }
    std::shared_ptr<Node> find(const Node& folder, const std::string& name) const;

    // `file` is a new one; on success `node` is what was opened.
    int open(std::shared_ptr<Node>& node, Options options, Access access, File& file);
    int create(Node& folder, const std::string& name, Options options, Access access,
               std::shared_ptr<Node>& node, File& file);

    int makeFolder(Node& folder, const std::string& name);
    int removeFolder(Node& folder, const std::string& name);
    int removeObject(Node& folder, const std::string& name);
    int rename(Node& from, const std::string& name, Node& to, const std::string& newName,
               bool mayReplace);
    int truncate(Node& node);

    // As after the end of the process: only what is stored is left. All files are closed before.
    void restart();

  private:
    bool isGone(const Node& node) const;

    std::shared_ptr<Node> m_root = std::make_shared<Node>();
    std::uint64_t m_nextClient = 1;
};

}  // namespace model
