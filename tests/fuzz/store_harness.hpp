// What the fuzzers of the object service's store have in common: a store without a thread for the
// disk's work, beside a model of it.

#pragma once

#include <memory>
#include <set>
#include <utility>

#include "ppsd/store/store.hpp"
#include "tests/fuzz/bytes.hpp"
#include "tests/fuzz/store_model/file.hpp"
#include "tests/fuzz/store_model/node.hpp"
#include "tests/fuzz/store_model/store.hpp"

inline model::Options modelOf(OpenOptions options) {
    return {options.wait, options.delta, options.server};
}

inline model::Access modelOf(Store::Access access) {
    const Opener& by = access.opener;
    return {access.reads, access.writes, access.truncates, {by.user, by.group, by.process}};
}

class Listener : public ReadinessListener {
  public:
    void readinessChanged(OpenFile& file) noexcept override { told.insert(&file); }
    std::set<const OpenFile*> told;
};

struct NodePair {
    std::shared_ptr<Node> node;
    std::shared_ptr<model::Node> model;
};

inline std::shared_ptr<DirectoryNode> folderOf(const NodePair& folder) {
    return std::static_pointer_cast<DirectoryNode>(folder.node);
}

// How something ended: without a thread for the disk's work, before its call returns.
template <typename Action>
int ended(Action action) {
    int end = -1;
    action(Done([&](int result) {
        require(end == -1);  // told once
        end = result;
    }));
    require(end != -1);
    return end;
}

// Keeps what was opened.
inline Store::Opened kept(std::shared_ptr<Node>& node, std::unique_ptr<OpenFile>& file,
                          const Done& done) {
    return [&node, &file, done](int error, const std::shared_ptr<Node>& opened,
                                std::unique_ptr<OpenFile> made) {
        node = opened;
        file = std::move(made);
        done(error);
    };
}
