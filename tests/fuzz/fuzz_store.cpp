// Operations of any kind and order on the object service's store, beside a model of it
// (store_model): results, bytes, listings and readiness must be the same, a file that becomes
// readable must be told of, and what is loaded again from the disk must be what was there.
//
// The kernel's own checks are taken for granted: names without '?', no folder moved into itself, no
// read of a descriptor that cannot.

#include <algorithm>
#include <deque>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ppsd/store/store.hpp"
#include "tests/fuzz/bytes.hpp"
#include "tests/fuzz/store_harness.hpp"
#include "tests/fuzz/store_model/file.hpp"
#include "tests/fuzz/store_model/lines.hpp"
#include "tests/fuzz/store_model/node.hpp"
#include "tests/fuzz/store_model/store.hpp"
#include "tests/support/scratch_root.hpp"

namespace {

constexpr std::size_t kMostOperations = 200;
constexpr std::size_t kMostFiles = 12;
constexpr std::size_t kMostFolders = 6;
constexpr const char* kNames[] = {"a", "b", "c", "dd", "e.1"};
constexpr const char* kAttributes[] = {"k", "l", "m", "nn", "o_1", "k2", "k3", "k4"};
constexpr std::size_t kValueBytes[] = {0, 1, 2, 5, 100, 4000, 60000, 250000};

using model::Line;
using model::Value;

class Run {
  public:
    Run(Bytes& bytes, const ScratchRoot& root) : m_bytes(bytes), m_path(root.path("/store")) {
        std::filesystem::remove_all(m_path);
        load();
    }

    // What the disk has is what was there.
    void end() {
        restart();
        checkFolder(*m_store->root(), *m_model.root());
    }

    void step() {
        m_listener.told.clear();
        for (Pair& pair : m_files) {
            pair.was = pair.file->readiness();
        }
        switch (m_bytes.below(14)) {
            case 0:
                create();
                break;
            case 1:
                lookUp();
                break;
            case 2:
                open();
                break;
            case 3:
            case 4:
            case 5:
                write();
                break;
            case 6:
            case 7:
            case 8:
                read();
                break;
            case 9:
                close();
                break;
            case 10:
                changeFolder();
                break;
            case 11:
                rename();
                break;
            case 12:
                require(m_nodes.empty() || truncateNode());
                break;
            default:
                if (m_bytes.below(4) == 0) {
                    restart();
                }
                break;
        }
        checkReadiness();
        if (++m_steps % 4 == 0) {
            checkFolder(*m_store->root(), *m_model.root());
        }
    }

  private:
    struct Pair {
        std::unique_ptr<OpenFile> file;
        std::unique_ptr<model::File> model;
        Readiness was;
        uid_t user;
    };

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
    std::string pickName() { return kNames[m_bytes.below(std::size(kNames))]; }
    OpenOptions pickOptions() {
        return OpenOptions::fromBits(m_bytes.below(8));  // those that the model knows
    }
    Store::Access pickAccess() {
        const unsigned byte = m_bytes.next();
        const Opener opener{model::kOwner + byte / 16 % 2, byte / 64 % 2,
                            static_cast<pid_t>(byte / 32 % 2)};
        return {byte % 4 != 3, byte % 4 != 2, byte % 16 == 4, opener};
    }

    void keep(std::unique_ptr<OpenFile> file, std::unique_ptr<model::File> model, uid_t user) {
        require(file != nullptr);
        require(file->isStream() == (model->channel != nullptr));
        require(file->waits() == model->options.wait);
        m_files.push_back({std::move(file), std::move(model), {}, user});
        m_files.back().was.readable = true;  // nobody has asked before
    }

    void create() {
        if (m_files.size() == kMostFiles) {
            return;
        }
        const NodePair folder = pickFolder();
        const std::string name = pickName();
        const OpenOptions options = pickOptions();
        const Store::Access access = pickAccess();
        NodePair made;
        std::unique_ptr<OpenFile> file;
        auto model = std::make_unique<model::File>();
        const int expected = m_model.create(*folder.model, name, modelOf(options), modelOf(access),
                                            made.model, *model);
        const int result = ended([&](const Done& done) {
            m_store->create(folderOf(folder), {name, options}, {model::kOwner, 2}, 0644, access,
                            kept(made.node, file, done));
        });
        require(result == expected);
        if (result == 0) {
            keep(std::move(file), std::move(model), model::kOwner);
            remember(made);
        }
    }

    void remember(const NodePair& found) {
        require((found.node == nullptr) == (found.model == nullptr));
        if (found.node == nullptr) {
            return;
        }
        if (found.model->kind == model::Node::kFolder && m_folders.size() < kMostFolders) {
            m_folders.push_back(found);
        }
        m_nodes.push_front(found);
        m_nodes.resize(std::min<std::size_t>(m_nodes.size(), 4));
    }

    void lookUp() {
        const NodePair folder = pickFolder();
        const std::string name = pickName();
        remember({m_store->find(*folderOf(folder), name), m_model.find(*folder.model, name)});
    }

    void open() {
        if (m_nodes.empty() || m_files.size() == kMostFiles) {
            return;
        }
        NodePair opened = m_nodes[m_bytes.below(static_cast<unsigned>(m_nodes.size()))];
        const OpenOptions options = pickOptions();
        const Store::Access access = pickAccess();
        std::unique_ptr<OpenFile> file;
        auto model = std::make_unique<model::File>();
        const int expected = m_model.open(opened.model, modelOf(options), modelOf(access), *model);
        const std::shared_ptr<Node> node = opened.node;
        const int result = ended([&](const Done& done) {
            m_store->open(node, options, access, kept(opened.node, file, done));
        });
        require(result == expected);
        if (expected == 0) {
            keep(std::move(file), std::move(model), access.opener.user);
            remember(opened);
        }
    }

    std::string pickValue() {
        const unsigned byte = m_bytes.next();
        // Mostly short ones.
        const std::size_t length =
            byte < 224 ? kValueBytes[byte % 5] : kValueBytes[byte % std::size(kValueBytes)];
        return std::string(length, static_cast<char>('A' + byte % 26));
    }

    // Few, so that they meet, and some more, so that an object can be full.
    std::string pickAttribute() {
        const unsigned byte = m_bytes.next();
        return byte < 200 ? kAttributes[byte % std::size(kAttributes)]
                          : "p" + std::to_string(byte % 32);
    }

    Line pickLine() {
        const std::string name = pickAttribute();
        switch (m_bytes.below(10)) {
            case 0:
                return {Line::kRemove, {name, "", ""}, "-" + name + "\n"};
            case 1: {
                const std::string object = pickName();
                const unsigned id = m_bytes.below(8);
                const std::string suffix = id < 4 ? "" : "." + std::to_string(id - 3);
                return {Line::kObject, {}, "@" + object + suffix + "\n"};
            }
            case 2:
                return m_bytes.below(4) != 0 ? Line{Line::kObject, {}, "@dd\n"}
                                             : Line{Line::kBroken, {}, "no attribute\n"};
            case 3: {
                const Value value{name, "n", std::to_string(m_bytes.next())};
                return {Line::kSet, value, model::lineOf(value)};
            }
            default: {
                const Value value{name, "", pickValue()};
                return {Line::kSet, value, model::lineOf(value)};
            }
        }
    }

    Pair* pickFile() {
        return m_files.empty() ? nullptr
                               : &m_files[m_bytes.below(static_cast<unsigned>(m_files.size()))];
    }

    void write() {
        Pair* pair = pickFile();
        if (pair == nullptr) {
            return;
        }
        std::vector<Line> lines(m_bytes.below(5));
        std::string text;
        for (Line& line : lines) {
            line = pickLine();
            text += line.text;
        }
        const bool isTorn = !lines.empty() && m_bytes.below(16) == 15;
        if (isTorn) {
            text.pop_back();
        }
        const int expected = pair->model->write(lines, text.size(), isTorn);
        const int result =
            ended([&](const Done& done) { pair->file->write(pair->user, text, done); });
        require(result == expected);
    }

    void read() {
        Pair* pair = pickFile();
        if (pair == nullptr || !pair->model->reads) {
            return;
        }
        const std::size_t size = m_bytes.flag() ? 1U << 20 : 1 + m_bytes.next();
        std::string bytes;
        const std::string expected = pair->model->read(size);
        const ReadOutcome outcome = pair->file->read(pair->user, size, bytes);
        require((outcome == ReadOutcome::kBytes) == !expected.empty());
        require((outcome == ReadOutcome::kEnd) == (expected.empty() && pair->model->isEnded));
        require(outcome != ReadOutcome::kBytes || bytes == expected);
    }

    void close() {
        if (m_files.empty()) {
            return;
        }
        const unsigned index = m_bytes.below(static_cast<unsigned>(m_files.size()));
        m_files[index].model->close();
        m_files.erase(m_files.begin() + index);
    }

    void changeFolder() {
        const NodePair folder = pickFolder();
        const std::string name = pickName();
        switch (m_bytes.below(3)) {
            case 0: {
                NodePair made;
                const int expected = m_model.makeFolder(*folder.model, name);
                const int result = ended([&](const Done& done) {
                    m_store->makeDirectory(folderOf(folder), name, {model::kOwner, 2}, 0755,
                                           [&](int error, const std::shared_ptr<Node>& node) {
                                               made.node = node;
                                               done(error);
                                           });
                });
                require(result == expected);
                if (expected == 0) {
                    made.model = m_model.find(*folder.model, name);
                    remember(made);
                }
                break;
            }
            case 1:
                require(ended([&](const Done& done) {
                            m_store->removeDirectory(model::kOwner, folderOf(folder), name, done);
                        }) == m_model.removeFolder(*folder.model, name));
                break;
            default:
                require(ended([&](const Done& done) {
                            m_store->removeObject(model::kOwner, folderOf(folder), name, done);
                        }) == m_model.removeObject(*folder.model, name));
                break;
        }
    }

    void rename() {
        const NodePair from = pickFolder();
        const std::string name = pickName();
        const NodePair to = pickFolder();
        const std::string newName = pickName();
        const bool mayReplace = m_bytes.flag();
        const std::shared_ptr<model::Node> moved = m_model.find(*from.model, name);
        for (const model::Node* above = to.model.get(); above != nullptr; above = above->folder) {
            if (above == moved.get()) {
                return;
            }
        }
        require(ended([&](const Done& done) {
                    m_store->rename(model::kOwner, folderOf(from), name, folderOf(to), newName,
                                    mayReplace, done);
                }) == m_model.rename(*from.model, name, *to.model, newName, mayReplace));
    }

    bool truncateNode() {
        const NodePair node = m_nodes[m_bytes.below(static_cast<unsigned>(m_nodes.size()))];
        return ended([&](const Done& done) {
                   m_store->truncate(model::kOwner, node.node, done);
               }) == m_model.truncate(*node.model);
    }

    void restart() {
        while (!m_files.empty()) {
            m_files.back().model->close();
            m_files.pop_back();
        }
        m_folders.clear();
        m_nodes.clear();
        checkAccounts();
        m_store.reset();
        m_model.restart();
        load();
    }

    void checkReadiness() {
        for (const Pair& pair : m_files) {
            const Readiness readiness = pair.file->readiness();
            require(readiness.readable == pair.model->isReadable());
            require(readiness.hungUp == pair.model->isEnded);
            const bool rose = (readiness.readable && !pair.was.readable) ||
                              (readiness.hungUp && !pair.was.hungUp);
            require(!rose || m_listener.told.contains(pair.file.get()));
        }
    }

    // When nothing is open, users hold what is stored and nothing else.
    void checkAccounts() {
        const std::size_t owned = m_accounts.held(model::kOwner, Holding::kObjects);
        require(owned == countBelow(*m_model.root()));
        for (const uid_t user : {model::kOwner, model::kOwner + 1}) {
            require(m_accounts.held(user, Holding::kFiles) == 0);
            require(m_accounts.held(user, Holding::kMemory) == 0);
        }
        require(m_accounts.held(model::kOwner, Holding::kStored) +
                    m_accounts.held(model::kOwner + 1, Holding::kStored) ==
                bytesBelow(*m_model.root()));
    }

    static std::size_t countBelow(const model::Node& folder) {
        std::size_t count = folder.stored.size();
        for (const auto& [name, node] : folder.stored) {
            count += countBelow(*node);
        }
        return count;
    }

    static std::size_t bytesBelow(const model::Node& node) {
        std::size_t bytes = model::linesOf(node.values).size();
        for (const auto& [name, child] : node.stored) {
            bytes += bytesBelow(*child);
        }
        return bytes;
    }

    void checkFolder(DirectoryNode& folder, const model::Node& model) {
        std::set<std::string> expected;
        for (const auto* entries : {&model.stored, &model.served}) {
            for (const auto& entry : *entries) {
                expected.insert(entry.first);
            }
        }
        std::set<std::string> names;
        std::shared_ptr<Charge> charge;
        const std::shared_ptr<Listing> listing = m_store->list(folder, 0, charge);
        for (const Listing::Entry& entry : listing->entries) {
            if (entry.name == "." || entry.name == "..") {
                continue;
            }
            require(names.insert(entry.name).second);
            const auto node = m_model.find(model, entry.name);
            require(node != nullptr && entry.isDirectory == (node->kind == model::Node::kFolder));
        }
        require(names == expected);
        for (const auto& [name, node] : model.stored) {
            const auto found = folder.stored.find(name);
            require(found != folder.stored.end() && found->second->name == name);
            require(found->second->parent == &folder);
            if (node->kind == model::Node::kFolder) {
                checkFolder(static_cast<DirectoryNode&>(*found->second), *node);
                continue;
            }
            const auto& object = static_cast<const ObjectNode&>(*found->second);
            require(object.content->lines == model::linesOf(node->values));
        }
    }

    Bytes& m_bytes;
    const std::string m_path;
    unsigned m_steps = 0;
    // Never reached: refusals are another fuzzer's.
    Accounts m_accounts{{1U << 30, 1U << 30, 1U << 30, 1U << 30}};
    Listener m_listener;
    model::Store m_model;
    std::unique_ptr<Store> m_store;
    std::vector<NodePair> m_folders;  // of those that were made or found, the first few
    std::deque<NodePair> m_nodes;     // looked up or opened, the last few
    std::vector<Pair> m_files;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ScratchRoot root;
    Bytes bytes(data, size);
    Run run(bytes, root);
    for (std::size_t i = 0; i < kMostOperations && !bytes.isAtEnd(); ++i) {
        run.step();
    }
    run.end();
    return 0;
}
