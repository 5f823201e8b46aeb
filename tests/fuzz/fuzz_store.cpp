// Operations of any kind and order on the object service's store, beside a model of it
// (store_model): results, bytes, listings and readiness must be the same, a file that becomes
// readable must be told of, and what is loaded again from the disk must be what was there.
//
// The kernel's own checks are taken for granted: names without '?', no folder moved into itself, no
// read of a descriptor that cannot.

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ppsd/store/store.hpp"
#include "tests/fuzz/bytes.hpp"
#include "tests/fuzz/store_harness.hpp"
#include "tests/fuzz/store_model/lines.hpp"
#include "tests/fuzz/store_model/node.hpp"
#include "tests/support/scratch_root.hpp"

namespace {

constexpr std::size_t kMostOperations = 200;
constexpr std::size_t kMostFiles = 12;
constexpr std::size_t kMostFolders = 6;
constexpr std::size_t kMostNodes = 4;
// Never reached: refusals are another fuzzer's.
constexpr Shares kNoShares = {1U << 30, 1U << 30, 1U << 30, 1U << 30};
constexpr const char* kNames[] = {"a", "b", "c", "dd", "e.1"};
constexpr const char* kAttributes[] = {"k", "l", "m", "nn", "o_1", "k2", "k3", "k4"};
constexpr std::size_t kValueBytes[] = {0, 1, 2, 5, 100, 4000, 60000, 250000};

using model::Line;
using model::Value;

class Run : public StoreHarness {
  public:
    Run(Bytes& bytes, const ScratchRoot& root)
        : StoreHarness(bytes, root, {kNames, kMostFolders, kMostNodes, kNoShares}) {}

    // What the disk has is what was there.
    void end() {
        restart();
        checkTree();
        checkListings(*m_store->root(), *m_model.root());
    }

    void step() {
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
                closeFile();
                break;
            case 10:
                changeFolder();
                break;
            case 11:
                rename();
                break;
            case 12:
                if (const NodePair* const node = pickNode()) {
                    truncate(*node);
                }
                break;
            default:
                if (m_bytes.below(4) == 0) {
                    restart();
                }
                break;
        }
        checkReadiness();
        if (++m_steps % 4 == 0) {
            checkTree();
            checkListings(*m_store->root(), *m_model.root());
        }
    }

  private:
    OpenOptions pickOptions() {
        return OpenOptions::fromBits(m_bytes.below(8));  // those that the model knows
    }
    Store::Access pickAccess() {
        const unsigned byte = m_bytes.next();
        const Opener opener{model::kOwner + byte / 16 % 2, byte / 64 % 2,
                            static_cast<pid_t>(byte / 32 % 2)};
        return {byte % 4 != 3, byte % 4 != 2, byte % 16 == 4, opener};
    }

    void create() {
        if (m_files.size() == kMostFiles) {
            return;
        }
        const Place place = pickPlace();
        Opening made{{}, pickOptions(), pickAccess()};
        createInModel(place, made, createInStore(place, made));
    }

    void open() {
        if (m_nodes.empty() || m_files.size() == kMostFiles) {
            return;
        }
        Opening opened{*pickNode(), pickOptions(), pickAccess()};
        openInModel(opened, openInStore(opened));
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

    void write() {
        FilePair* pair = pickFile();
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
        FilePair* pair = pickFile();
        if (pair == nullptr || !pair->model->reads) {
            return;
        }
        readInModel(*pair, readInStore(*pair));
    }

    void makeFolder(const Place& place) override {
        NodePair made;
        makeFolderInModel(place, made, makeFolderInStore(place, made));
    }

    void restart() {
        while (!m_files.empty()) {
            closeLastFile();
        }
        m_folders.clear();
        m_nodes.clear();
        checkAccounts();
        m_store.reset();
        m_model.restart();
        load();
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

    void checkListings(DirectoryNode& folder, const model::Node& model) {
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
            if (node->kind == model::Node::kFolder) {
                checkListings(static_cast<DirectoryNode&>(*folder.stored.at(name)), *node);
            }
        }
    }

    unsigned m_steps = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    runOperations<Run>(data, size, kMostOperations);
    return 0;
}
