#include "tests/fuzz/store_model/store.hpp"

#include <cerrno>

namespace model {

namespace {

std::shared_ptr<Node> add(Node& folder, const std::string& name, Node::Kind kind) {
    auto node = std::make_shared<Node>();
    node->kind = kind;
    node->name = name;
    node->folder = &folder;
    (kind == Node::kServed ? folder.served : folder.stored)[name] = node;
    return node;
}

std::shared_ptr<Node> take(Node& folder, const std::string& name) {
    const std::shared_ptr<Node> node = folder.stored[name];
    node->folder = nullptr;
    folder.stored.erase(name);
    return node;
}

std::shared_ptr<Node> serve(Node& folder, const std::string& name, File& file) {
    const std::shared_ptr<Node> node = add(folder, name, Node::kServed);
    node->channel = std::make_shared<Channel>();
    node->channel->name = name;
    file.node = node;
    file.channel = node->channel;
    return node;
}

void forgetServed(Node& folder) {
    folder.served.clear();
    for (const auto& [name, node] : folder.stored) {
        if (node->kind == Node::kFolder) {
            forgetServed(*node);
        }
    }
}

}  // namespace

std::shared_ptr<Node> Store::find(const Node& folder, const std::string& name) const {
    for (const auto* entries : {&folder.served, &folder.stored}) {
        const auto found = entries->find(name);
        if (found != entries->end()) {
            return found->second;
        }
    }
    return nullptr;
}

int Store::open(std::shared_ptr<Node>& node, Options options, Access access, File& file) {
    file.options = options;
    file.reads = access.reads;
    file.opener = access.opener;
    if (node->kind == Node::kFolder) {
        return EISDIR;
    }
    if (node->kind == Node::kServed) {
        if (options.server || node->folder == nullptr) {
            return options.server ? EBUSY : ENOENT;
        }
        file.connect(*node, m_nextClient++);
        return 0;
    }
    const bool isServed = node->folder != nullptr && node->folder->served.contains(node->name);
    if (!options.server) {
        if (!isServed && access.truncates) {
            node->change({});
        }
        file.node = node;
        node->opened += isServed ? 0 : 1;
        return isServed ? ESTALE : 0;
    }
    if (node->folder == nullptr) {
        return ESTALE;
    }
    const uid_t user = access.opener.user;
    if (!access.reads || !access.writes || (user != 0 && user != node->owner)) {
        return EACCES;
    }
    if (isServed) {
        return EBUSY;
    }
    node = serve(*node->folder, node->name, file);
    return 0;
}

int Store::create(Node& folder, const std::string& name, Options options, Access access,
                  std::shared_ptr<Node>& node, File& file) {
    node = find(folder, name);
    if (node != nullptr) {
        return options.server && node->kind == Node::kServed ? EBUSY : EEXIST;
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
        node = add(folder, name, Node::kObject);
        file.node = node;
        node->opened = 1;
    }
    return 0;
}

int Store::makeFolder(Node& folder, const std::string& name) {
    if (find(folder, name) != nullptr) {
        return EEXIST;
    }
    if (isGone(folder)) {
        return ENOENT;
    }
    add(folder, name, Node::kFolder);
    return 0;
}

int Store::removeFolder(Node& folder, const std::string& name) {
    const std::shared_ptr<Node> node = find(folder, name);
    if (node == nullptr || node->kind != Node::kFolder) {
        return node == nullptr ? ENOENT : ENOTDIR;
    }
    if (!node->stored.empty() || !node->served.empty()) {
        return ENOTEMPTY;
    }
    take(folder, name)->dropIfGone();
    return 0;
}

int Store::removeObject(Node& folder, const std::string& name) {
    const std::shared_ptr<Node> node = find(folder, name);
    if (node == nullptr) {
        return ENOENT;
    }
    if (node->kind != Node::kObject) {
        return node->kind == Node::kFolder ? EISDIR : EBUSY;
    }
    take(folder, name)->dropIfGone();
    return 0;
}

int Store::rename(Node& from, const std::string& name, Node& to, const std::string& newName,
                  bool mayReplace) {
    const std::shared_ptr<Node> node = find(from, name);
    if (node == nullptr || isGone(to)) {
        return ENOENT;
    }
    if (node->kind == Node::kServed) {
        return EBUSY;
    }
    if (&from == &to && name == newName) {
        return mayReplace ? 0 : EEXIST;
    }
    const std::shared_ptr<Node> target = find(to, newName);
    if (target != nullptr) {
        if (!mayReplace || target->kind == Node::kServed) {
            return mayReplace ? EBUSY : EEXIST;
        }
        if (target->kind != node->kind) {
            return target->kind == Node::kFolder ? EISDIR : ENOTDIR;
        }
        if (!target->stored.empty() || !target->served.empty()) {
            return ENOTEMPTY;
        }
        take(to, newName)->dropIfGone();
    }
    take(from, name);
    node->name = newName;
    node->folder = &to;
    to.stored[newName] = node;
    return 0;
}

int Store::truncate(Node& node) {
    if (node.kind == Node::kObject) {
        node.change({});
    }
    return node.kind == Node::kFolder ? EISDIR : 0;
}

void Store::restart() {
    forgetServed(*m_root);
    m_nextClient = 1;
}

bool Store::isGone(const Node& node) const {
    return node.folder == nullptr && &node != m_root.get();
}

}  // namespace model
