// What the fuzzers of the object service's store have in common: a store without a thread for the
// disk's work, beside a model of it, and the operations on both. Of these every one that the store
// may refuse to a user with a small share comes in two halves, what the store is asked and what the
// model says of the answer, so that a fuzzer can look at the answer between them.

#pragma once

#include <algorithm>
#include <deque>
#include <filesystem>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ppsd/store/store.hpp"
#include "tests/fuzz/bytes.hpp"
#include "tests/fuzz/store_model/file.hpp"
#include "tests/fuzz/store_model/lines.hpp"
#include "tests/fuzz/store_model/node.hpp"
#include "tests/fuzz/store_model/store.hpp"
#include "tests/support/scratch_root.hpp"

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

struct FilePair {
    std::unique_ptr<OpenFile> file;
    std::unique_ptr<model::File> model;
    std::shared_ptr<Node> node;  // of an object, else null
    uid_t user;
    Readiness was;
    std::size_t begun = 0;  // bytes of the text that it is in the middle of
};

// A name in a folder.
struct Place {
    NodePair folder;
    std::string name;
};

struct Opening {
    NodePair node;  // what is to be opened, or is made; then what was opened
    OpenOptions options;
    Store::Access access;
    std::unique_ptr<OpenFile> file = nullptr;
};

struct Reading {
    std::size_t size;
    std::string bytes = {};
    ReadOutcome outcome = {};
};

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

class StoreHarness {
  public:
    virtual ~StoreHarness() = default;

  protected:
    struct Bounds {
        std::span<const char* const> names;
        std::size_t folders;
        std::size_t nodes;
        Shares shares;
    };

    StoreHarness(Bytes& bytes, const ScratchRoot& root, const Bounds& bounds)
        : m_bytes(bytes), m_bounds(bounds), m_path(root.path("/store")), m_accounts(bounds.shares) {
        std::filesystem::remove_all(m_path);
        load();
    }

    void load() {
        const auto report = [](const std::string&) {
            std::abort();  // nothing on the disk is damaged
        };
        m_store = std::make_unique<Store>(m_path, m_listener, report, m_accounts);
        require(m_store->load() == 0);
        m_nodes.clear();
        m_folders.assign(1, {m_store->root(), m_model.root()});
    }

    const NodePair& pickFolder() {
        return m_folders[m_bytes.below(static_cast<unsigned>(m_folders.size()))];
    }
    std::string pickName() {
        return m_bounds.names[m_bytes.below(static_cast<unsigned>(m_bounds.names.size()))];
    }
    Place pickPlace() { return {pickFolder(), pickName()}; }
    const NodePair* pickNode() {
        return m_nodes.empty() ? nullptr
                               : &m_nodes[m_bytes.below(static_cast<unsigned>(m_nodes.size()))];
    }
    FilePair* pickFile() {
        return m_files.empty() ? nullptr
                               : &m_files[m_bytes.below(static_cast<unsigned>(m_files.size()))];
    }

    void remember(const NodePair& found) {
        require((found.node == nullptr) == (found.model == nullptr));
        if (found.node == nullptr) {
            return;
        }
        if (found.model->kind == model::Node::kFolder && m_folders.size() < m_bounds.folders) {
            m_folders.push_back(found);
        }
        m_nodes.push_front(found);
        m_nodes.resize(std::min(m_nodes.size(), m_bounds.nodes));
    }

    void lookUp() {
        const Place place = pickPlace();
        remember({m_store->find(*folderOf(place.folder), place.name),
                  m_model.find(*place.folder.model, place.name)});
    }

    // What is made, and the file, are the acting user's, whoever it is opened for.
    int createInStore(const Place& place, Opening& made) {
        return ended([&](const Done& done) {
            m_store->create(folderOf(place.folder), {place.name, made.options}, owner(), 0666,
                            made.access, kept(made.node.node, made.file, done));
        });
    }
    void createInModel(const Place& place, Opening& made, int result) {
        auto file = std::make_unique<model::File>();
        require(result == m_model.create(*place.folder.model, place.name, modelOf(made.options),
                                         modelOf(made.access), made.node.model, *file));
        if (result == 0) {
            keep(made, std::move(file), m_user);
        }
    }

    int openInStore(Opening& opened) {
        const std::shared_ptr<Node> node = opened.node.node;
        return ended([&](const Done& done) {
            m_store->open(node, opened.options, opened.access,
                          kept(opened.node.node, opened.file, done));
        });
    }
    void openInModel(Opening& opened, int result) {
        auto file = std::make_unique<model::File>();
        require(result == m_model.open(opened.node.model, modelOf(opened.options),
                                       modelOf(opened.access), *file));
        if (result == 0) {
            keep(opened, std::move(file), opened.access.opener.user);
        }
    }

    Reading readInStore(FilePair& pair) {
        Reading reading{m_bytes.flag() ? 1U << 20 : 1 + m_bytes.next()};
        reading.outcome = pair.file->read(pair.user, reading.size, reading.bytes);
        return reading;
    }
    static void readInModel(FilePair& pair, const Reading& reading) {
        const bool isBegun = !pair.model->rest.empty();
        const std::string expected = pair.model->read(reading.size);
        pair.begun = isBegun ? pair.begun : expected.size() + pair.model->rest.size();
        const ReadOutcome outcome = reading.outcome;
        require((outcome == ReadOutcome::kBytes) == !expected.empty());
        require((outcome == ReadOutcome::kEnd) == (expected.empty() && pair.model->isEnded));
        require(outcome != ReadOutcome::kBytes || reading.bytes == expected);
    }

    void closeFile() {
        if (m_files.empty()) {
            return;
        }
        const unsigned index = m_bytes.below(static_cast<unsigned>(m_files.size()));
        m_files[index].model->close();
        m_files.erase(m_files.begin() + index);
    }
    void closeLastFile() {
        m_files.back().model->close();
        m_files.pop_back();
    }

    void changeFolder() {
        const Place place = pickPlace();
        model::Node& folder = *place.folder.model;
        switch (m_bytes.below(3)) {
            case 0:
                makeFolder(place);
                break;
            case 1:
                require(ended([&](const Done& done) {
                            m_store->removeDirectory(m_user, folderOf(place.folder), place.name,
                                                     done);
                        }) == m_model.removeFolder(folder, place.name));
                break;
            default:
                require(ended([&](const Done& done) {
                            m_store->removeObject(m_user, folderOf(place.folder), place.name, done);
                        }) == m_model.removeObject(folder, place.name));
                break;
        }
    }

    virtual void makeFolder(const Place& place) = 0;
    int makeFolderInStore(const Place& place, NodePair& made) {
        return ended([&](const Done& done) {
            m_store->makeDirectory(folderOf(place.folder), place.name, owner(), 0777,
                                   [&](int error, const std::shared_ptr<Node>& node) {
                                       made.node = node;
                                       done(error);
                                   });
        });
    }
    void makeFolderInModel(const Place& place, NodePair& made, int result) {
        require(result == m_model.makeFolder(*place.folder.model, place.name));
        if (result == 0) {
            made.model = m_model.find(*place.folder.model, place.name);
            remember(made);
        }
    }

    void rename() {
        const Place from = pickPlace();
        const Place to = pickPlace();
        const bool mayReplace = m_bytes.flag();
        const auto moved = m_model.find(*from.folder.model, from.name);
        for (const model::Node* above = to.folder.model.get(); above != nullptr;
             above = above->folder) {
            if (above == moved.get()) {
                return;  // the kernel's own check
            }
        }
        require(ended([&](const Done& done) {
                    m_store->rename(m_user, folderOf(from.folder), from.name, folderOf(to.folder),
                                    to.name, mayReplace, done);
                }) == m_model.rename(*from.folder.model, from.name, *to.folder.model, to.name,
                                     mayReplace));
    }

    void truncate(const NodePair& node) {
        require(ended([&](const Done& done) { m_store->truncate(m_user, node.node, done); }) ==
                m_model.truncate(*node.model));
    }

    // What has risen since the step before was told of.
    void checkReadiness() {
        for (FilePair& pair : m_files) {
            const Readiness readiness = pair.file->readiness();
            require(readiness.readable == pair.model->isReadable());
            require(readiness.hungUp == pair.model->isEnded);
            const bool rose = (readiness.readable && !pair.was.readable) ||
                              (readiness.hungUp && !pair.was.hungUp);
            require(!rose || m_listener.told.contains(pair.file.get()));
            pair.was = readiness;
        }
        m_listener.told.clear();
    }

    void checkTree() { checkFolder(*m_store->root(), *m_model.root()); }

    Bytes& m_bytes;
    const Bounds m_bounds;
    const std::string m_path;
    uid_t m_user = model::kOwner;  // who acts
    Accounts m_accounts;
    Listener m_listener;
    model::Store m_model;
    std::unique_ptr<Store> m_store;
    std::vector<NodePair> m_folders;  // of those that were made or found, the first few
    std::deque<NodePair> m_nodes;     // looked up or opened, the last few
    std::vector<FilePair> m_files;

  private:
    Store::Owner owner() const { return {m_user, m_user + 1}; }

    void keep(Opening& opened, std::unique_ptr<model::File> model, uid_t user) {
        require(opened.file != nullptr);
        const bool isObject = model->channel == nullptr;
        require(opened.file->isStream() == !isObject);
        require(opened.file->waits() == model->options.wait);
        // Nobody has asked before whether it is readable.
        m_files.push_back({std::move(opened.file),
                           std::move(model),
                           isObject ? opened.node.node : nullptr,
                           user,
                           {true, false}});
        remember(opened.node);
    }

    static void checkFolder(const DirectoryNode& folder, const model::Node& model) {
        require(folder.stored.size() == model.stored.size());
        require(folder.served.size() == model.served.size());
        for (const auto& [name, node] : model.served) {
            require(folder.served.contains(name));
        }
        for (const auto& [name, node] : model.stored) {
            const auto found = folder.stored.find(name);
            require(found != folder.stored.end() && found->second->name == name);
            require(found->second->parent == &folder);
            require(found->second->metadata.owner == node->owner);
            if (node->kind == model::Node::kFolder) {
                checkFolder(static_cast<const DirectoryNode&>(*found->second), *node);
                continue;
            }
            const auto& object = static_cast<const ObjectNode&>(*found->second);
            require(object.content->lines == model::linesOf(node->values));
        }
    }
};

// A fuzzer's run over one input, of at most so many operations.
template <typename Run>
void runOperations(const std::uint8_t* data, std::size_t size, std::size_t most) {
    static const ScratchRoot root;
    Bytes bytes(data, size);
    Run run(bytes, root);
    for (std::size_t i = 0; i < most && !bytes.isAtEnd(); ++i) {
        run.step();
    }
    run.end();
}
