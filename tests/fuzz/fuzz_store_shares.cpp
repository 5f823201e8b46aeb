// Operations of several users with small shares on the object service's store, beside a model of it
// (store_model) that refuses nobody. Whoever holds little is never refused, and root never; a
// refusal changes nothing; nobody holds more than its share; and what is held is what is there.
//
// What of memory somebody holds is known here only as a bound from above: what several descriptors
// of a user share is counted for each of them. All else is exact.

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ppsd/store/limits.hpp"
#include "ppsd/store/store.hpp"
#include "tests/fuzz/bytes.hpp"
#include "tests/fuzz/store_harness.hpp"
#include "tests/fuzz/store_model/file.hpp"
#include "tests/fuzz/store_model/lines.hpp"
#include "tests/fuzz/store_model/node.hpp"
#include "tests/fuzz/store_model/store.hpp"
#include "tests/support/scratch_root.hpp"

namespace {

constexpr std::size_t kMostOperations = 300;
constexpr std::size_t kMostFiles = 40;
constexpr std::size_t kMostFolders = 4;
constexpr std::size_t kMostNodes = 6;
constexpr std::size_t kMostListings = 6;
constexpr uid_t kUsers = 4;  // the first is root
constexpr Shares kShares = {6000, 8, 6, 3000};
constexpr std::size_t kMemory = kShares[static_cast<std::size_t>(Holding::kMemory)];
constexpr std::size_t kFiles = kShares[static_cast<std::size_t>(Holding::kFiles)];
constexpr std::size_t kObjects = kShares[static_cast<std::size_t>(Holding::kObjects)];
constexpr std::size_t kStored = kShares[static_cast<std::size_t>(Holding::kStored)];
constexpr std::size_t kTagBytes = 300;  // what a message is longer than its lines, at the most
constexpr const char* kNames[] = {"a", "b", "c", "dd", "e.1", "f", "g"};
constexpr const char* kAttributes[] = {"k", "l", "m", "nn"};
constexpr std::size_t kValueBytes[] = {0, 1, 20, 100, 300, 700, 1300, 2500};

using model::Line;
using model::Value;

bool isRefusal(int error) {
    return error == ENOBUFS || error == ENFILE || error == EDQUOT;
}

std::size_t bytesOf(const model::Node& node) {
    return model::linesOf(node.values).size();
}

class Run : public StoreHarness {
  public:
    Run(Bytes& bytes, const ScratchRoot& root)
        : StoreHarness(bytes, root, {kNames, kMostFolders, kMostNodes, kShares}),
          m_most(allHeld()) {}

    void step() {
        m_user = m_bytes.below(8) % kUsers;
        m_before = allHeld();
        m_isRefused = false;
        switch (m_bytes.below(16)) {
            case 0:
            case 1:
                create();
                break;
            case 2:
                lookUp();
                break;
            case 3:
            case 4:
                open();
                break;
            case 5:
            case 6:
            case 7:
                write();
                break;
            case 8:
            case 9:
                read();
                break;
            case 10:
                close();
                break;
            case 11:
                changeFolder();
                break;
            case 12:
                rename();
                break;
            case 13:
                m_bytes.flag() ? truncateSome() : changeOwner();
                break;
            case 14:
                m_bytes.flag() ? list() : openClients();
                break;
            default:
                if (m_bytes.below(8) == 0) {
                    restart();
                }
                break;
        }
        require(!m_isRefused || m_before == allHeld());
        checkRemoved();
        checkHeld();
        checkReadiness();
        if (m_isRefused || ++m_steps % 4 == 0) {
            checkTree();
        }
    }

    void end() { restart(); }

  private:
    using Held = std::array<Shares, kUsers>;

    struct KeptListing {
        std::shared_ptr<Listing> listing;
        std::shared_ptr<Charge> charge;
        uid_t user;
    };
    struct ClientList {
        std::unique_ptr<OpenFile> file;
        std::size_t bytes;  // at the most
        uid_t user;
    };
    // Who made an object or folder, and who wrote to it last.
    struct Payers {
        uid_t maker;
        uid_t writer;
    };

    std::size_t held(uid_t user, Holding holding) const { return m_accounts.held(user, holding); }
    Held allHeld() const {
        Held held{};
        for (uid_t user = 0; user < kUsers; ++user) {
            for (std::size_t i = 0; i < kHoldings; ++i) {
                held[user][i] = m_accounts.held(user, static_cast<Holding>(i));
            }
        }
        return held;
    }

    // What was refused to the user must be past its share.
    void refused(bool isPastShare, int line = __builtin_LINE()) {
        require(m_user != 0 && isPastShare, line);
        m_isRefused = true;
    }

    // What of memory the user holds, at the most.
    std::size_t mostMemory(uid_t user) const {
        std::size_t bytes = 0;
        std::set<const model::Channel*> channels;
        for (const FilePair& pair : m_files) {
            const model::File& file = *pair.model;
            if (file.channel != nullptr) {
                channels.insert(file.channel.get());
            }
            if (pair.user != user) {
                continue;
            }
            bytes += file.queuedBytes;
            if (file.channel == nullptr) {
                bytes += keptBytes(pair);
            }
        }
        for (const model::Channel* channel : channels) {
            bytes += mostOfBacklogs(*channel, user);
        }
        for (const KeptListing& kept : m_listings) {
            bytes += kept.user == user ? listingBytes(*kept.listing) : 0;
        }
        for (const ClientList& list : m_clientLists) {
            bytes += list.user == user ? list.bytes : 0;
        }
        return bytes;
    }

    static std::size_t keptBytes(const FilePair& pair) {
        const model::File& file = *pair.model;
        std::size_t bytes = file.rest.empty() ? 0 : pair.begun;
        bytes += file.options.delta ? model::linesOf(file.seenValues).size() : 0;
        bytes += file.node->folder == nullptr ? bytesOf(*file.node) : 0;
        return bytes;
    }

    static std::size_t mostOfBacklogs(const model::Channel& channel, uid_t user) {
        std::size_t bytes = 0;
        std::set<std::uint64_t> clients;
        for (const auto& [id, client] : channel.clients) {
            if (channel.hasServer && client->opener.user == user) {
                clients.insert(id);
            }
        }
        for (const model::Channel::Pending& pending : channel.pending) {
            if (pending.opener.user == user) {
                clients.insert(pending.client);
                bytes += pending.isMessage ? pending.text.size() : 0;
            }
        }
        return bytes + clients.size() * kClientBytes;
    }

    static std::size_t listingBytes(const Listing& listing) {
        std::size_t bytes = 0;
        for (const Listing::Entry& entry : listing.entries) {
            bytes += sizeof entry + entry.name.size();
        }
        return bytes;
    }

    bool hasNoRoomFor(std::size_t bytes) const { return mostMemory(m_user) + bytes > kMemory; }

    std::size_t countFiles(uid_t user) const {
        const auto isTheirs = [user](const auto& kept) { return kept.user == user; };
        return static_cast<std::size_t>(
            std::count_if(m_files.begin(), m_files.end(), isTheirs) +
            std::count_if(m_clientLists.begin(), m_clientLists.end(), isTheirs));
    }
    bool hasNoFileLeft() const { return countFiles(m_user) >= kFiles; }

    std::size_t countObjects(const model::Node& folder, uid_t user) const {
        std::size_t count = 0;
        for (const auto& [name, node] : folder.stored) {
            count += (m_payers.at(node.get()).maker == user ? 1U : 0U) + countObjects(*node, user);
        }
        return count;
    }
    bool hasNoObjectLeft() const { return countObjects(*m_model.root(), m_user) >= kObjects; }

    std::size_t countStored(const model::Node& folder, uid_t user) const {
        std::size_t bytes = 0;
        for (const auto& [name, node] : folder.stored) {
            bytes += m_payers.at(node.get()).writer == user ? bytesOf(*node) : 0;
            bytes += countStored(*node, user);
        }
        return bytes;
    }

    OpenOptions pickOptions() {
        const unsigned byte = m_bytes.next();
        return OpenOptions::fromBits(byte < 64 ? byte % 8 : byte < 128 ? 4 : 0);
    }
    Store::Access pickAccess() {
        const unsigned byte = m_bytes.next();
        const Opener opener{m_user, m_user, static_cast<pid_t>(byte / 32 % 2)};
        return {byte % 8 != 3, byte % 8 != 2, byte % 16 == 4, opener};
    }

    void create() {
        if (m_files.size() == kMostFiles) {
            return;
        }
        const Place place = pickPlace();
        Opening made{{}, pickOptions(), pickAccess()};
        const int result = createInStore(place, made);
        if (isRefusal(result)) {
            refused(result == ENFILE
                        ? hasNoFileLeft()
                        : result == EDQUOT && hasNoObjectLeft() && !made.options.server);
            return;
        }
        createInModel(place, made, result);
        if (result == 0) {
            madeBy(*made.node.model);
        }
    }

    void madeBy(model::Node& node) {
        node.owner = m_user;
        m_payers[&node] = {m_user, m_user};
    }

    void open() {
        const NodePair* const picked = pickNode();
        if (picked == nullptr || m_files.size() == kMostFiles) {
            return;
        }
        Opening opened{*picked, pickOptions(), pickAccess()};
        const int result = openInStore(opened);
        if (isRefusal(result)) {
            refused(result == ENFILE ? hasNoFileLeft()
                                     : result == ENOBUFS && hasNoRoomFor(kClientBytes));
            return;
        }
        const std::shared_ptr<model::Node> looked = opened.node.model;
        const int version = looked->version;
        openInModel(opened, result);
        if (result == 0) {
            notePayer(*looked, version, 0);
            model::Node& node = *opened.node.model;
            node.owner = &node == looked.get() ? looked->owner : m_user;
        }
    }

    // Who pays for a text from now on, if it has become another one: whoever wrote it, unless that
    // one made it smaller and has no room.
    void notePayer(const model::Node& node, int version, std::size_t before) {
        if (node.version == version || node.folder == nullptr) {
            return;
        }
        Payers& payers = m_payers.at(&node);
        const std::size_t bytes = bytesOf(node);
        const std::size_t freed = payers.writer == m_user ? before : 0;
        const std::size_t had = m_before[m_user][static_cast<std::size_t>(Holding::kStored)];
        if (m_user == 0 || bytes <= freed || had + bytes - freed <= kStored) {
            payers.writer = m_user;
        }
    }

    std::vector<Line> pickLines(std::string& text) {
        std::vector<Line> lines(1 + m_bytes.below(3));
        for (Line& line : lines) {
            const std::string name = kAttributes[m_bytes.below(std::size(kAttributes))];
            const unsigned byte = m_bytes.next();
            if (byte < 32) {
                line = {Line::kRemove, {name, "", ""}, "-" + name + "\n"};
            } else if (byte < 64) {
                const std::string object = pickName();
                line = {Line::kObject, {}, "@" + object + (byte < 48 ? ".1\n" : "\n")};
            } else {
                const Value value{name, "",
                                  std::string(kValueBytes[byte % std::size(kValueBytes)], 'v')};
                line = {Line::kSet, value, model::lineOf(value)};
            }
            text += line.text;
        }
        return lines;
    }

    void write() {
        FilePair* pair = pickFile();
        if (pair == nullptr) {
            return;
        }
        m_user = pair->user;
        std::string text;
        const std::vector<Line> lines = pickLines(text);
        const int result =
            ended([&](const Done& done) { pair->file->write(pair->user, text, done); });
        if (isRefusal(result)) {
            mayRefuseWrite(*pair, result, text.size());
            return;
        }
        if (pair->model->channel != nullptr && pair->model->client == 0) {
            findFull(*pair->model->channel, text.size());
        }
        const model::Node* const object =
            pair->model->channel == nullptr ? pair->model->node.get() : nullptr;
        const int version = object == nullptr ? 0 : object->version;
        const std::size_t before = object == nullptr ? 0 : bytesOf(*object);
        require(result == pair->model->write(lines, text.size(), false));
        if (object != nullptr && result == 0) {
            notePayer(*object, version, before);
        }
    }

    void mayRefuseWrite(const FilePair& pair, int result, std::size_t bytes) {
        const model::File& file = *pair.model;
        if (file.channel == nullptr) {
            const std::size_t most = bytesOf(*file.node) + bytes;
            const bool isRemoved = file.node->folder == nullptr;
            if (result == EDQUOT) {
                refused(!isRemoved && held(m_user, Holding::kStored) + most > kStored);
            } else {
                // The text of the write counts until it is there.
                refused(hasNoRoomFor(most + bytes + (isRemoved ? kMemory / 2 : 0)));
            }
        } else if (file.client != 0) {
            refused(result == ENOBUFS && hasNoRoomFor(bytes + kTagBytes));
        } else {
            // It is the receiver whose share is spent.
            const auto isSpent = [&](const auto& client) {
                const uid_t user = client.second->opener.user;
                return user != 0 && mostMemory(user) + bytes + kTagBytes > kMemory;
            };
            const auto& clients = file.channel->clients;
            require(result == ENOBUFS && std::any_of(clients.begin(), clients.end(), isSpent));
            m_isRefused = true;
        }
    }

    // Which clients a message to all had no room for: those that were hung up on.
    void findFull(const model::Channel& channel, std::size_t bytes) {
        for (const FilePair& pair : m_files) {
            if (pair.model->channel.get() != &channel || pair.model->client == 0 ||
                pair.model->isEnded) {
                continue;
            }
            const std::size_t size = bytes + kTagBytes;
            const bool isFull = pair.file->readiness().hungUp;
            pair.model->isFull = isFull;
            const std::size_t clients = channel.clients.size();
            require(!isFull ||
                    (pair.user != 0 && mostMemory(pair.user) + clients * size > kMemory));
        }
    }

    void read() {
        if (!m_clientLists.empty() && m_bytes.below(8) == 0) {
            std::string bytes;
            m_clientLists.front().file->read(m_clientLists.front().user, 40, bytes);
        }
        FilePair* pair = pickFile();
        if (pair == nullptr || !pair->model->reads) {
            return;  // the kernel refuses it
        }
        m_user = pair->user;
        const Reading reading = readInStore(*pair);
        if (reading.outcome == ReadOutcome::kRefused) {
            const model::File& file = *pair->model;
            require(file.channel == nullptr);
            const std::size_t kept = bytesOf(*file.node) * 2 + keptBytes(*pair) + kTagBytes;
            refused(hasNoRoomFor(kept));
            return;
        }
        readInModel(*pair, reading);
    }

    void close() {
        if (!m_listings.empty() && m_bytes.flag()) {
            m_listings.pop_front();
        }
        if (!m_clientLists.empty() && m_bytes.below(4) == 0) {
            m_clientLists.pop_front();
        }
        closeFile();
    }

    void list() {
        const NodePair folder = pickFolder();
        std::shared_ptr<Charge> charge;
        const auto listing = m_store->list(*folderOf(folder), m_user, charge);
        if (listing == nullptr) {
            std::shared_ptr<Charge> roots;
            refused(hasNoRoomFor(listingBytes(*m_store->list(*folderOf(folder), 0, roots))));
        } else if (m_listings.size() < kMostListings) {
            m_listings.push_back({listing, std::move(charge), m_user});
        }
    }

    void openClients() {
        const NodePair* const picked = pickNode();
        if (picked == nullptr || picked->model->kind != model::Node::kServed ||
            picked->model->folder == nullptr || m_clientLists.size() == kMostListings) {
            return;
        }
        const std::size_t most = 100 + picked->model->channel->clients.size() * 60;
        std::shared_ptr<Node> node;
        std::unique_ptr<OpenFile> file;
        OpenOptions options;
        options.clients = true;
        const int result = ended([&](const Done& done) {
            m_store->open(picked->node, options, {true, false, false, {m_user, m_user, 0}},
                          kept(node, file, done));
        });
        if (isRefusal(result)) {
            refused(result == ENFILE ? hasNoFileLeft() : hasNoRoomFor(most));
        } else if (result == 0) {
            require(m_user == 0 || m_accounts.held(m_user, Holding::kMemory) > 0);
            m_clientLists.push_back({std::move(file), most, m_user});
        }
    }

    void makeFolder(const Place& place) override {
        NodePair made;
        const int result = makeFolderInStore(place, made);
        if (isRefusal(result)) {
            refused(result == EDQUOT && hasNoObjectLeft());
            return;
        }
        makeFolderInModel(place, made, result);
        if (result == 0) {
            madeBy(*made.model);
        }
    }

    void truncateSome() {
        const NodePair* const picked = pickNode();
        if (picked == nullptr) {
            return;
        }
        const int version = picked->model->version;
        const std::size_t before = bytesOf(*picked->model);
        truncate(*picked);
        if (picked->model->kind == model::Node::kObject) {
            notePayer(*picked->model, version, before);
        }
    }

    // What somebody made stays theirs until a restart.
    void changeOwner() {
        const NodePair* const picked = pickNode();
        if (picked == nullptr || picked->node == m_store->root()) {
            return;
        }
        Store::MetadataChange change;
        change.owner = m_user;
        require(ended([&](const Done& done) {
                    m_store->setMetadata(m_user, picked->node, change, done);
                }) == 0);
        picked->model->owner = m_user;
    }

    void restart() {
        while (!m_files.empty()) {
            closeLastFile();
            checkRemoved();
        }
        m_listings.clear();
        m_clientLists.clear();
        m_folders.clear();
        m_nodes.clear();
        checkHeld();
        for (uid_t user = 0; user < kUsers; ++user) {
            require(held(user, Holding::kMemory) == 0 && held(user, Holding::kFiles) == 0);
        }
        checkTree();
        m_store.reset();
        require(allHeld() == Held{});
        m_model.restart();
        giveToOwners(*m_model.root());
        load();
        m_most = allHeld();
        checkTree();
    }

    void giveToOwners(const model::Node& folder) {
        for (const auto& [name, node] : folder.stored) {
            m_payers[node.get()] = {node->owner, node->owner};
            giveToOwners(*node);
        }
    }

    // The text of a removed object goes when nobody who has it open has room for it.
    void checkRemoved() {
        for (const FilePair& pair : m_files) {
            if (pair.node == nullptr || pair.node->parent != nullptr) {
                continue;
            }
            const auto& object = static_cast<const ObjectNode&>(*pair.node);
            if (object.content->lines.empty() && !pair.model->node->values.empty()) {
                const auto isRoots = [&](const FilePair& other) {
                    return other.node == pair.node && other.user == 0;
                };
                require(std::none_of(m_files.begin(), m_files.end(), isRoots));
                pair.model->node->change({});
            }
            require(object.content->lines == model::linesOf(pair.model->node->values));
        }
    }

    // What was there at the start may be past a share, and only becomes less then.
    void checkHeld() {
        const Held now = allHeld();
        for (uid_t user = 0; user < kUsers; ++user) {
            for (std::size_t i = 0; i < kHoldings; ++i) {
                m_most[user][i] = std::min(m_most[user][i], now[user][i]);
                require(user == 0 || now[user][i] <= std::max(kShares[i], m_most[user][i]));
            }
            require(held(user, Holding::kFiles) == countFiles(user));
            require(held(user, Holding::kObjects) == countObjects(*m_model.root(), user));
            require(held(user, Holding::kStored) == countStored(*m_model.root(), user));
            require(held(user, Holding::kMemory) <= mostMemory(user));
        }
    }

    unsigned m_steps = 0;
    Held m_before{};  // what everybody held before the step
    Held m_most;      // what was there at the start, as far as it still is
    bool m_isRefused = false;
    std::map<const model::Node*, Payers> m_payers;
    std::deque<KeptListing> m_listings;
    std::deque<ClientList> m_clientLists;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    runOperations<Run>(data, size, kMostOperations);
    return 0;
}
