#include "tests/fuzz/store_model/file.hpp"

#include <algorithm>
#include <cerrno>
#include <map>

#include "ppsd/store/limits.hpp"

namespace model {

namespace {

bool hasBroken(const std::vector<Line>& lines) {
    return std::any_of(lines.begin(), lines.end(),
                       [](const Line& line) { return line.kind == Line::kBroken; });
}

std::string messageOf(const std::vector<Line>& lines) {
    std::string text;
    for (const Line& line : lines) {
        text += line.kind == Line::kObject ? "" : line.text;
    }
    return text;
}

std::string introduction(Opener opener) {
    return "uid:n:" + std::to_string(opener.user) + "\ngid:n:" + std::to_string(opener.group) +
           "\npid:n:" + std::to_string(opener.process) + "\n";
}

}  // namespace

void File::connect(const Node& served, std::uint64_t number) {
    channel = served.channel;
    client = number;
    channel->clients[client] = this;
    if (channel->hasServer) {
        channel->add({"+" + tag() + introduction(opener), client, false, opener});
    }
}

int File::write(const std::vector<Line>& lines, std::size_t bytes, bool isTorn) {
    if (channel == nullptr) {
        return writeObject(lines, bytes, isTorn);
    }
    return client == 0 ? writeToClients(lines, bytes, isTorn) : writeToServer(lines, bytes, isTorn);
}

std::string File::read(std::size_t size) {
    if (channel == nullptr) {
        if (rest.empty()) {
            rest = unread();
            seen = node->version;
            seenValues = node->values;
        }
        const std::string bytes = rest.substr(0, size);
        rest.erase(0, size);
        return bytes;
    }
    if (client == 0) {
        if (channel->pending.empty()) {
            return {};
        }
        const Channel::Pending first = channel->takeNext();
        const auto sender = channel->clients.find(first.client);
        if (first.isMessage && sender != channel->clients.end()) {
            sender->second->bytesAtServer -= first.text.size();
        }
        return first.text.substr(0, size);
    }
    if (queue.empty()) {
        return {};
    }
    const std::string& first = queue.front();
    const std::string bytes = first.substr(readOfFirst, size);
    readOfFirst += bytes.size();
    if (readOfFirst == first.size()) {
        queuedBytes -= first.size();
        readOfFirst = 0;
        queue.pop_front();
    }
    return bytes;
}

bool File::isReadable() const {
    if (channel == nullptr) {
        return !rest.empty() || !unread().empty();
    }
    return client == 0 ? !channel->pending.empty() : !queue.empty() || isEnded;
}

void File::close() {
    if (channel == nullptr) {
        --node->opened;
        node->dropIfGone();
        return;
    }
    if (client != 0) {
        depart();
        return;
    }
    node->folder->served.erase(node->name);
    node->folder = nullptr;
    channel->end();
    for (const auto& [id, receiver] : channel->clients) {
        receiver->enqueue("-@" + channel->name + "\n");
        receiver->isEnded = true;
    }
}

std::string File::unread() const {
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

int File::writeObject(const std::vector<Line>& lines, std::size_t bytes, bool isTorn) const {
    if (bytes > kObjectWriteMaxBytes) {
        return EMSGSIZE;
    }
    if (isTorn || hasBroken(lines)) {
        return EINVAL;
    }
    Values values = node->values;
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
        values.empty() ? 0 : node->name.size() + 2 + linesOf(values).size();
    if (values != node->values && rendered > kObjectTextMaxBytes) {
        return ENOSPC;
    }
    node->change(values);
    return 0;
}

int File::writeToServer(const std::vector<Line>& lines, std::size_t bytes, bool isTorn) {
    if (!channel->hasServer || isEnded) {
        return EPIPE;
    }
    if (bytes > kMessageMaxBytes) {
        return EMSGSIZE;
    }
    if (isTorn || hasBroken(lines)) {
        return EINVAL;
    }
    const std::string message = tag() + messageOf(lines);
    if (bytesAtServer + message.size() > kServerQueuePerClientMaxBytes) {
        return ENOBUFS;
    }
    bytesAtServer += message.size();
    channel->add({message, client, true, opener});
    return 0;
}

int File::writeToClients(const std::vector<Line>& lines, std::size_t bytes, bool isTorn) const {
    if (bytes > kMessageMaxBytes) {
        return EMSGSIZE;
    }
    std::vector<Line> message = lines;
    std::map<std::uint64_t, File*> receivers = channel->clients;
    bool isToAll = true;
    // Its first line may say to whom.
    if (!message.empty() && message[0].kind == Line::kObject) {
        const std::string address = message[0].text.substr(1, message[0].text.size() - 2);
        const std::string& name = channel->name;
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
    const std::string text = "@" + channel->name + "\n" + messageOf(message);
    for (const auto& [id, receiver] : receivers) {
        const bool fits =
            !receiver->isFull && receiver->queuedBytes + text.size() <= kClientQueueMaxBytes;
        if (!receiver->reads || fits) {
            receiver->enqueue(text);
        } else if (isToAll) {
            receiver->depart();
            receiver->isEnded = true;
        } else {
            return ENOBUFS;
        }
    }
    return 0;
}

std::string File::tag() const {
    return "@" + channel->name + "." + std::to_string(client) + "\n";
}

void File::enqueue(const std::string& text) {
    if (reads) {
        queuedBytes += text.size();
        queue.push_back(text);
    }
}

void File::depart() {
    if (channel->clients.erase(client) != 0) {
        channel->leave(client, {"-" + tag(), client, false, opener});
    }
}

}  // namespace model
