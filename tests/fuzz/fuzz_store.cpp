// Operations of any kind and order on the object service's store, beside a model of it that is as
// simple as can be: results, bytes, listings and readiness must be the same, a file that becomes
// readable must be told of, and what is loaded again from the disk must be what was there.
//
// The kernel's own checks are taken for granted: names without '?', no folder moved into itself.

#include <algorithm>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ppsd/store/limits.hpp"
#include "ppsd/store/store.hpp"
#include "tests/fuzz/bytes.hpp"
#include "tests/support/scratch_root.hpp"

// Nothing here survives a power cut anyway.
extern "C" int fsync(int /*descriptor*/) {
    return 0;
}
extern "C" int fdatasync(int /*descriptor*/) {
    return 0;
}

namespace {

constexpr std::size_t kMostOperations = 200;
constexpr std::size_t kMostFiles = 12;
constexpr std::size_t kMostFolders = 6;
constexpr uid_t kOwner = 1;  // of every object
constexpr const char* kNames[] = {"a", "b", "c", "dd", "e.1"};
constexpr const char* kAttributes[] = {"k", "l", "m", "nn", "o_1", "k2", "k3", "k4"};
constexpr std::size_t kValueBytes[] = {0, 1, 2, 5, 100, 4000, 60000, 250000};

// ---- the model

struct Value {
    std::string name;
    std::string encoding;
    std::string value;
    bool operator==(const Value&) const = default;
};
using Values = std::vector<Value>;

std::string lineOf(const Value& value) {
    return value.name + ":" + value.encoding + ":" + value.value + "\n";
}

std::string linesOf(const Values& values) {
    std::string text;
    for (const Value& value : values) {
        text += lineOf(value);
    }
    return text;
}

const Value* findValue(const Values& values, const std::string& name) {
    for (const Value& value : values) {
        if (value.name == name) {
            return &value;
        }
    }
    return nullptr;
}

// A line of a write.
struct Line {
    enum Kind { kSet, kRemove, kObject, kBroken } kind;
    Value value;       // kSet; of kRemove the name
    std::string text;  // with its line feed
};

struct ModelChannel;

struct ModelNode {
    enum Kind { kFolder, kObject, kServed } kind;
    std::string name;
    ModelNode* folder = nullptr;  // null for the root and for what is gone
    // A folder.
    std::map<std::string, std::shared_ptr<ModelNode>> stored;
    std::map<std::string, std::shared_ptr<ModelNode>> served;
    // An object. Each list has a number of its own.
    Values values;
    int version = 0;
    // A served object.
    std::shared_ptr<ModelChannel> channel;
};

struct ModelFile;

struct ModelChannel {
    struct Pending {
        std::string text;
        std::uint64_t client;
        bool isMessage;
        Opener opener;
    };
    // In which order users, their processes and the clients of these have a turn; by key of whose
    // turn it is part.
    using Ring = std::vector<std::uint64_t>;

    std::string name;
    bool hasServer = true;
    std::vector<Pending> pending;  // as they came
    std::map<std::string, Ring> rings;

    static std::string keyOf(Opener opener) {
        return std::to_string(opener.user) + "." + std::to_string(opener.process);
    }

    void add(const Pending& item) {
        pending.push_back(item);
        const auto join = [](Ring& ring, std::uint64_t who) {
            if (std::find(ring.begin(), ring.end(), who) == ring.end()) {
                ring.push_back(who);
            }
        };
        join(rings["users"], item.opener.user);
        join(rings[std::to_string(item.opener.user)],
             static_cast<std::uint64_t>(item.opener.process));
        join(rings[keyOf(item.opener)], item.client);
    }

    // Takes away what is at `index`; those who have nothing more lose their places, and the others
    // stay, or go to the end after a turn.
    Pending take(std::size_t index, bool isTurn) {
        const Pending item = pending[index];
        pending.erase(pending.begin() + static_cast<std::ptrdiff_t>(index));
        const auto pass = [&](Ring& ring, std::uint64_t who, auto isSame) {
            const bool stays = std::any_of(pending.begin(), pending.end(), isSame);
            if (isTurn || !stays) {
                std::erase(ring, who);
            }
            if (isTurn && stays) {
                ring.push_back(who);
            }
        };
        const Opener by = item.opener;
        pass(rings["users"], by.user, [&](const Pending& p) { return p.opener.user == by.user; });
        pass(rings[std::to_string(by.user)], static_cast<std::uint64_t>(by.process),
             [&](const Pending& p) { return keyOf(p.opener) == keyOf(by); });
        pass(rings[keyOf(by)], item.client,
             [&](const Pending& p) { return p.client == item.client; });
        return item;
    }

    Pending takeNext() {
        const auto user = static_cast<uid_t>(rings["users"].front());
        const auto process = static_cast<pid_t>(rings[std::to_string(user)].front());
        const std::uint64_t client = rings[keyOf({user, 0, process})].front();
        const auto next = std::find_if(pending.begin(), pending.end(),
                                       [&](const Pending& p) { return p.client == client; });
        return take(static_cast<std::size_t>(next - pending.begin()), true);
    }

    // What a client leaves that is gone.
    void leave(std::uint64_t client, const Pending& notice) {
        const auto isItsOwn = [&](const Pending& p) { return p.client == client; };
        const auto first = std::find_if(pending.begin(), pending.end(), isItsOwn);
        if (first != pending.end() && first->text[0] == '+' &&
            std::count_if(pending.begin(), pending.end(), isItsOwn) == 1) {
            take(static_cast<std::size_t>(first - pending.begin()), false);
        } else if (hasServer) {
            add(notice);
        }
    }

    std::map<std::uint64_t, ModelFile*> clients;
};

struct ModelFile {
    OpenOptions options;
    std::shared_ptr<ModelNode> node;  // an object, or of a server what it serves
    // An object's.
    int seen = -1;
    Values seenValues;
    std::string rest;
    // An end of a channel.
    std::shared_ptr<ModelChannel> channel;
    std::uint64_t client = 0;  // 0 for the server
    Opener opener;
    bool reads = true;
    std::deque<std::string> queue;
    std::size_t queuedBytes = 0;
    std::size_t bytesAtServer = 0;
    std::size_t readOfFirst = 0;
    bool isEnded = false;

    std::string unread() const {
        if (seen == node->version) {
            return {};
        }
        if (!options.delta) {
            return node->values.empty() ? "" : "@" + node->name + "\n" + linesOf(node->values);
        }
        std::string lines;
        for (const Value& value : node->values) {
            const Value* old = findValue(seenValues, value.name);
            lines += old != nullptr && *old == value ? "" : lineOf(value);
        }
        for (const Value& value : seenValues) {
            lines += findValue(node->values, value.name) == nullptr ? "-" + value.name + "\n" : "";
        }
        return lines.empty() ? "" : "@" + node->name + "\n" + lines;
    }

    bool isReadable() const {
        if (channel == nullptr) {
            return !rest.empty() || !unread().empty();
        }
        return client == 0 ? !channel->pending.empty() : !queue.empty() || isEnded;
    }
};

class Model {
  public:
    Model() { root->kind = ModelNode::kFolder; }

    std::shared_ptr<ModelNode> find(const ModelNode& folder, const std::string& name) const {
        for (const auto* entries : {&folder.served, &folder.stored}) {
            const auto found = entries->find(name);
            if (found != entries->end()) {
                return found->second;
            }
        }
        return nullptr;
    }

    bool isGone(const ModelNode& node) const {
        return node.folder == nullptr && &node != root.get();
    }

    std::shared_ptr<ModelNode> add(ModelNode& folder, const std::string& name,
                                   ModelNode::Kind kind) {
        auto node = std::make_shared<ModelNode>();
        node->kind = kind;
        node->name = name;
        node->folder = &folder;
        (kind == ModelNode::kServed ? folder.served : folder.stored)[name] = node;
        return node;
    }

    int open(std::shared_ptr<ModelNode>& node, OpenOptions options, Store::Access access,
             ModelFile& file) {
        file.options = options;
        file.reads = access.reads;
        file.opener = access.opener;
        if (node->kind == ModelNode::kFolder) {
            return EISDIR;
        }
        if (node->kind == ModelNode::kServed) {
            if (options.server || node->folder == nullptr) {
                return options.server ? EBUSY : ENOENT;
            }
            file.channel = node->channel;
            file.client = nextClient++;
            file.channel->clients[file.client] = &file;
            tellServer(*file.channel, {"+" + tag(file) + introduction(file.opener), file.client,
                                       false, file.opener});
            return 0;
        }
        const bool isServed = node->folder != nullptr && node->folder->served.contains(node->name);
        if (!options.server) {
            if (!isServed && access.truncates) {
                change(*node, {});
            }
            file.node = node;
            return isServed ? ESTALE : 0;
        }
        if (node->folder == nullptr) {
            return ESTALE;
        }
        if (!access.reads || !access.writes || access.opener.user != kOwner) {
            return EACCES;
        }
        if (isServed) {
            return EBUSY;
        }
        node = serve(*node->folder, node->name, file);
        return 0;
    }

    int create(ModelNode& folder, const std::string& name, OpenOptions options,
               Store::Access access, std::shared_ptr<ModelNode>& node, ModelFile& file) {
        node = find(folder, name);
        if (node != nullptr) {
            return options.server && node->kind == ModelNode::kServed ? EBUSY : EEXIST;
        }
        if (isGone(folder)) {
            return ENOENT;
        }
        if (options.server && !(access.reads && access.writes)) {
            return EACCES;
        }
        file.options = options;
        file.reads = access.reads;
        if (options.server) {
            node = serve(folder, name, file);
        } else {
            node = add(folder, name, ModelNode::kObject);
            file.node = node;
        }
        return 0;
    }

    int makeFolder(ModelNode& folder, const std::string& name) {
        if (find(folder, name) != nullptr) {
            return EEXIST;
        }
        if (isGone(folder)) {
            return ENOENT;
        }
        add(folder, name, ModelNode::kFolder);
        return 0;
    }

    int removeFolder(ModelNode& folder, const std::string& name) {
        const std::shared_ptr<ModelNode> node = find(folder, name);
        if (node == nullptr || node->kind != ModelNode::kFolder) {
            return node == nullptr ? ENOENT : ENOTDIR;
        }
        if (!node->stored.empty() || !node->served.empty()) {
            return ENOTEMPTY;
        }
        take(folder, name);
        return 0;
    }

    int removeObject(ModelNode& folder, const std::string& name) {
        const std::shared_ptr<ModelNode> node = find(folder, name);
        if (node == nullptr) {
            return ENOENT;
        }
        if (node->kind != ModelNode::kObject) {
            return node->kind == ModelNode::kFolder ? EISDIR : EBUSY;
        }
        take(folder, name);
        return 0;
    }

    int rename(ModelNode& from, const std::string& name, ModelNode& to, const std::string& newName,
               bool mayReplace) {
        const std::shared_ptr<ModelNode> node = find(from, name);
        if (node == nullptr || isGone(to)) {
            return ENOENT;
        }
        if (node->kind == ModelNode::kServed) {
            return EBUSY;
        }
        if (&from == &to && name == newName) {
            return mayReplace ? 0 : EEXIST;
        }
        const std::shared_ptr<ModelNode> target = find(to, newName);
        if (target != nullptr) {
            if (!mayReplace || target->kind == ModelNode::kServed) {
                return mayReplace ? EBUSY : EEXIST;
            }
            if (target->kind != node->kind) {
                return target->kind == ModelNode::kFolder ? EISDIR : ENOTDIR;
            }
            if (!target->stored.empty() || !target->served.empty()) {
                return ENOTEMPTY;
            }
            take(to, newName);
        }
        take(from, name);
        node->name = newName;
        node->folder = &to;
        to.stored[newName] = node;
        return 0;
    }

    int truncate(ModelNode& node) {
        if (node.kind == ModelNode::kObject) {
            change(node, {});
        }
        return node.kind == ModelNode::kFolder ? EISDIR : 0;
    }

    int write(ModelFile& file, const std::vector<Line>& lines, std::size_t bytes, bool isTorn) {
        if (file.channel == nullptr) {
            return writeObject(file, lines, bytes, isTorn);
        }
        return file.client == 0 ? writeServer(file, lines, bytes, isTorn)
                                : writeClient(file, lines, bytes, isTorn);
    }

    ReadOutcome read(ModelFile& file, std::size_t size, std::string& bytes) {
        if (file.channel == nullptr) {
            if (file.rest.empty()) {
                file.rest = file.unread();
                file.seen = file.node->version;
                file.seenValues = file.node->values;
            }
            bytes = file.rest.substr(0, size);
            file.rest.erase(0, size);
            return bytes.empty() ? ReadOutcome::kNothing : ReadOutcome::kBytes;
        }
        if (file.client == 0) {
            if (file.channel->pending.empty()) {
                return ReadOutcome::kNothing;
            }
            const ModelChannel::Pending first = file.channel->takeNext();
            const auto sender = file.channel->clients.find(first.client);
            if (first.isMessage && sender != file.channel->clients.end()) {
                sender->second->bytesAtServer -= first.text.size();
            }
            bytes = first.text.substr(0, size);
            return ReadOutcome::kBytes;
        }
        if (file.queue.empty()) {
            return file.isEnded ? ReadOutcome::kEnd : ReadOutcome::kNothing;
        }
        const std::string& first = file.queue.front();
        bytes = first.substr(file.readOfFirst, size);
        file.readOfFirst += bytes.size();
        if (file.readOfFirst == first.size()) {
            file.queuedBytes -= first.size();
            file.readOfFirst = 0;
            file.queue.pop_front();
        }
        return ReadOutcome::kBytes;
    }

    void close(ModelFile& file) {
        if (file.channel == nullptr) {
            return;
        }
        ModelChannel& channel = *file.channel;
        if (file.client != 0) {
            depart(file);
            return;
        }
        file.node->folder->served.erase(file.node->name);
        file.node->folder = nullptr;
        channel.hasServer = false;
        channel.pending.clear();
        channel.rings.clear();
        for (const auto& [id, client] : channel.clients) {
            enqueue(*client, "-@" + channel.name + "\n");
            client->isEnded = true;
        }
    }

    // As after the end of the process: only what is stored is left.
    void restart(ModelNode& folder) {
        folder.served.clear();
        for (const auto& [name, node] : folder.stored) {
            if (node->kind == ModelNode::kFolder) {
                restart(*node);
            }
        }
        nextClient = 1;
    }

    std::shared_ptr<ModelNode> root = std::make_shared<ModelNode>();
    std::uint64_t nextClient = 1;

  private:
    static std::string tag(const ModelFile& client) {
        return "@" + client.channel->name + "." + std::to_string(client.client) + "\n";
    }

    static std::string introduction(Opener opener) {
        return "uid:n:" + std::to_string(opener.user) + "\ngid:n:" + std::to_string(opener.group) +
               "\npid:n:" + std::to_string(opener.process) + "\n";
    }

    static void tellServer(ModelChannel& channel, const ModelChannel::Pending& pending) {
        if (channel.hasServer) {
            channel.add(pending);
        }
    }

    static void depart(ModelFile& client) {
        if (client.channel->clients.erase(client.client) != 0) {
            client.channel->leave(client.client,
                                  {"-" + tag(client), client.client, false, client.opener});
        }
    }

    static void enqueue(ModelFile& client, const std::string& text) {
        if (client.reads) {
            client.queuedBytes += text.size();
            client.queue.push_back(text);
        }
    }

    std::shared_ptr<ModelNode> serve(ModelNode& folder, const std::string& name, ModelFile& file) {
        const std::shared_ptr<ModelNode> node = add(folder, name, ModelNode::kServed);
        node->channel = std::make_shared<ModelChannel>();
        node->channel->name = name;
        file.node = node;
        file.channel = node->channel;
        return node;
    }

    static void take(ModelNode& folder, const std::string& name) {
        folder.stored[name]->folder = nullptr;
        folder.stored.erase(name);
    }

    void change(ModelNode& node, const Values& values) {
        if (node.values != values) {
            node.values = values;
            node.version = ++m_versions;
        }
    }

    static bool hasBroken(const std::vector<Line>& lines) {
        return std::any_of(lines.begin(), lines.end(),
                           [](const Line& line) { return line.kind == Line::kBroken; });
    }

    static std::string messageOf(const std::vector<Line>& lines) {
        std::string text;
        for (const Line& line : lines) {
            text += line.kind == Line::kObject ? "" : line.text;
        }
        return text;
    }

    int writeObject(ModelFile& file, const std::vector<Line>& lines, std::size_t bytes,
                    bool isTorn) {
        if (bytes > kObjectWriteMaxBytes) {
            return EMSGSIZE;
        }
        if (isTorn || hasBroken(lines)) {
            return EINVAL;
        }
        Values values = file.node->values;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const Line& line = lines[i];
            if (line.kind == Line::kObject && i > 0) {
                return EINVAL;
            }
            const auto found = std::find_if(values.begin(), values.end(), [&](const Value& value) {
                return value.name == line.value.name;
            });
            if (line.kind == Line::kSet && found != values.end()) {
                *found = line.value;
            } else if (line.kind == Line::kSet) {
                values.push_back(line.value);
            } else if (line.kind == Line::kRemove && found != values.end()) {
                values.erase(found);
            }
        }
        const std::size_t rendered =
            values.empty() ? 0 : file.node->name.size() + 2 + linesOf(values).size();
        if (values != file.node->values && rendered > kObjectTextMaxBytes) {
            return ENOSPC;
        }
        change(*file.node, values);
        return 0;
    }

    static int writeClient(ModelFile& file, const std::vector<Line>& lines, std::size_t bytes,
                           bool isTorn) {
        if (!file.channel->hasServer || file.isEnded) {
            return EPIPE;
        }
        if (bytes > kMessageMaxBytes) {
            return EMSGSIZE;
        }
        if (isTorn || hasBroken(lines)) {
            return EINVAL;
        }
        const std::string message = tag(file) + messageOf(lines);
        if (file.bytesAtServer + message.size() > kServerQueuePerClientMaxBytes) {
            return ENOBUFS;
        }
        file.bytesAtServer += message.size();
        tellServer(*file.channel, {message, file.client, true, file.opener});
        return 0;
    }

    static int writeServer(ModelFile& file, const std::vector<Line>& lines, std::size_t bytes,
                           bool isTorn) {
        if (bytes > kMessageMaxBytes) {
            return EMSGSIZE;
        }
        std::vector<Line> message = lines;
        std::map<std::uint64_t, ModelFile*> receivers = file.channel->clients;
        bool isToAll = true;
        // Its first line may say to whom.
        if (!message.empty() && message[0].kind == Line::kObject) {
            const std::string address = message[0].text.substr(1, message[0].text.size() - 2);
            const std::string& name = file.channel->name;
            if (isTorn && message.size() == 1) {
                return EINVAL;
            }
            if (address != name) {
                isToAll = false;
                if (address.rfind(name + ".", 0) != 0) {
                    return EINVAL;
                }
                const std::string id = address.substr(name.size() + 1);
                if (id.empty() || id.find_first_not_of("0123456789") != std::string::npos) {
                    return EINVAL;
                }
                const auto to = receivers.find(std::stoull(id));
                receivers = to == receivers.end() ? decltype(receivers)()
                                                  : decltype(receivers){{to->first, to->second}};
            }
            message.erase(message.begin());
        }
        const auto isObject = [](const Line& line) { return line.kind == Line::kObject; };
        if (isTorn || hasBroken(message) || std::any_of(message.begin(), message.end(), isObject)) {
            return EINVAL;
        }
        const std::string text = "@" + file.channel->name + "\n" + messageOf(message);
        for (const auto& [id, client] : receivers) {
            if (!client->reads || client->queuedBytes + text.size() <= kClientQueueMaxBytes) {
                enqueue(*client, text);
            } else if (isToAll) {
                depart(*client);
                client->isEnded = true;
            } else {
                return ENOBUFS;
            }
        }
        return 0;
    }

    int m_versions = 0;
};

// ---- both, side by side

class Listener : public ReadinessListener {
  public:
    void readinessChanged(OpenFile& file) override { told.insert(&file); }
    std::set<const OpenFile*> told;
};

class Run {
  public:
    Run(Bytes& bytes, const ScratchRoot& root) : m_bytes(bytes), m_path(root.path("/store")) {
        std::filesystem::remove_all(m_path);
        load();
    }

    // What the disk has is what was there.
    void end() {
        restart();
        checkFolder(*m_store->root(), *m_model.root);
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
            checkFolder(*m_store->root(), *m_model.root);
        }
    }

  private:
    struct Pair {
        std::unique_ptr<OpenFile> file;
        std::unique_ptr<ModelFile> model;
        Readiness was;
    };
    struct NodePair {
        std::shared_ptr<Node> node;
        std::shared_ptr<ModelNode> model;
    };

    void load() {
        m_store = std::make_unique<Store>(m_path, m_listener, [](const std::string&) {
            std::abort();  // nothing on the disk is damaged
        });
        require(m_store->load() == 0);
        m_nodes.clear();
        m_folders.assign(1, {m_store->root(), m_model.root});
    }

    DirectoryNode& real(const NodePair& folder) {
        return static_cast<DirectoryNode&>(*folder.node);
    }
    const NodePair& pickFolder() {
        return m_folders[m_bytes.below(static_cast<unsigned>(m_folders.size()))];
    }
    std::string pickName() { return kNames[m_bytes.below(std::size(kNames))]; }
    OpenOptions pickOptions() {
        return OpenOptions::fromBits(m_bytes.below(1U << OpenOptions::kBits));
    }
    Store::Access pickAccess() {
        const unsigned byte = m_bytes.next();
        const Opener opener{kOwner + byte / 16 % 2, byte / 64 % 2,
                            static_cast<pid_t>(byte / 32 % 2)};
        return {byte % 4 != 3, byte % 4 != 2, byte % 16 == 4, opener};
    }

    void keep(std::unique_ptr<OpenFile> file, std::unique_ptr<ModelFile> model) {
        require(file != nullptr);
        require(file->isStream() == (model->channel != nullptr));
        require(file->waits() == model->options.wait);
        m_files.push_back({std::move(file), std::move(model), {}});
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
        auto model = std::make_unique<ModelFile>();
        const int expected =
            m_model.create(*folder.model, name, options, access, made.model, *model);
        const int result = m_store->create(real(folder), {name, options}, {kOwner, 2}, 0644, access,
                                           made.node, file);
        require(result == expected);
        if (result == 0) {
            keep(std::move(file), std::move(model));
            remember(made);
        }
    }

    void remember(const NodePair& found) {
        require((found.node == nullptr) == (found.model == nullptr));
        if (found.node == nullptr) {
            return;
        }
        if (found.model->kind == ModelNode::kFolder && m_folders.size() < kMostFolders) {
            m_folders.push_back(found);
        }
        m_nodes.push_front(found);
        m_nodes.resize(std::min<std::size_t>(m_nodes.size(), 4));
    }

    void lookUp() {
        const NodePair folder = pickFolder();
        const std::string name = pickName();
        remember({m_store->find(real(folder), name), m_model.find(*folder.model, name)});
    }

    void open() {
        if (m_nodes.empty() || m_files.size() == kMostFiles) {
            return;
        }
        NodePair opened = m_nodes[m_bytes.below(static_cast<unsigned>(m_nodes.size()))];
        const OpenOptions options = pickOptions();
        const Store::Access access = pickAccess();
        std::unique_ptr<OpenFile> file;
        auto model = std::make_unique<ModelFile>();
        const int expected = m_model.open(opened.model, options, access, *model);
        require(m_store->open(opened.node, options, access, file) == expected);
        if (expected == 0) {
            keep(std::move(file), std::move(model));
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
                return {Line::kSet, value, lineOf(value)};
            }
            default: {
                const Value value{name, "", pickValue()};
                return {Line::kSet, value, lineOf(value)};
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
        const int expected = m_model.write(*pair->model, lines, text.size(), isTorn);
        require(pair->file->write(text) == expected);
    }

    void read() {
        Pair* pair = pickFile();
        if (pair == nullptr) {
            return;
        }
        const std::size_t size = m_bytes.flag() ? 1U << 20 : 1 + m_bytes.next();
        std::string bytes;
        std::string expectedBytes;
        const ReadOutcome expected = m_model.read(*pair->model, size, expectedBytes);
        const ReadOutcome outcome = pair->file->read(size, bytes);
        require(outcome == expected);
        require(outcome != ReadOutcome::kBytes || bytes == expectedBytes);
    }

    void close() {
        if (m_files.empty()) {
            return;
        }
        const unsigned index = m_bytes.below(static_cast<unsigned>(m_files.size()));
        m_model.close(*m_files[index].model);
        m_files.erase(m_files.begin() + index);
    }

    void changeFolder() {
        const NodePair folder = pickFolder();
        const std::string name = pickName();
        switch (m_bytes.below(3)) {
            case 0: {
                NodePair made;
                const int expected = m_model.makeFolder(*folder.model, name);
                require(m_store->makeDirectory(real(folder), name, {1, 2}, 0755, made.node) ==
                        expected);
                if (expected == 0) {
                    made.model = m_model.find(*folder.model, name);
                    remember(made);
                }
                break;
            }
            case 1:
                require(m_store->removeDirectory(real(folder), name) ==
                        m_model.removeFolder(*folder.model, name));
                break;
            default:
                require(m_store->removeObject(real(folder), name) ==
                        m_model.removeObject(*folder.model, name));
                break;
        }
    }

    void rename() {
        const NodePair from = pickFolder();
        const std::string name = pickName();
        const NodePair to = pickFolder();
        const std::string newName = pickName();
        const bool mayReplace = m_bytes.flag();
        const std::shared_ptr<ModelNode> moved = m_model.find(*from.model, name);
        for (const ModelNode* above = to.model.get(); above != nullptr; above = above->folder) {
            if (above == moved.get()) {
                return;
            }
        }
        require(m_store->rename(real(from), name, real(to), newName, mayReplace) ==
                m_model.rename(*from.model, name, *to.model, newName, mayReplace));
    }

    bool truncateNode() {
        const NodePair node = m_nodes[m_bytes.below(static_cast<unsigned>(m_nodes.size()))];
        return m_store->truncate(*node.node) == m_model.truncate(*node.model);
    }

    void restart() {
        while (!m_files.empty()) {
            m_model.close(*m_files.back().model);
            m_files.pop_back();
        }
        m_folders.clear();
        m_nodes.clear();
        m_store.reset();
        m_model.restart(*m_model.root);
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

    void checkFolder(const DirectoryNode& folder, const ModelNode& model) {
        std::set<std::string> expected;
        for (const auto* entries : {&model.stored, &model.served}) {
            for (const auto& entry : *entries) {
                expected.insert(entry.first);
            }
        }
        std::set<std::string> names;
        for (const Store::ListEntry& entry : m_store->list(folder)) {
            require(names.insert(entry.name).second);
            const auto node = m_model.find(model, entry.name);
            require(node != nullptr && entry.isDirectory == (node->kind == ModelNode::kFolder));
        }
        require(names == expected);
        for (const auto& [name, node] : model.stored) {
            const auto found = folder.stored.find(name);
            require(found != folder.stored.end() && found->second->name == name);
            require(found->second->parent == &folder);
            if (node->kind == ModelNode::kFolder) {
                checkFolder(static_cast<const DirectoryNode&>(*found->second), *node);
                continue;
            }
            const auto& object = static_cast<const ObjectNode&>(*found->second);
            require(renderAttributes(*object.attributes) == linesOf(node->values));
        }
    }

    Bytes& m_bytes;
    const std::string m_path;
    unsigned m_steps = 0;
    Listener m_listener;
    Model m_model;
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
