// Messages are made once, as the text that the reader gets, and moved or shared from then on: a
// broadcast puts one string into every client's queue. Every queue operation costs the same however
// long the queue is.
//
// A client that opens and closes before the server has heard of it, and says nothing, takes its
// notice with it: an application that opens and closes in a storm leaves what was read of it and
// nothing more.
//
// A broadcast goes to those who have room. The others have missed a message of a stream, which
// would look whole to them, so they are hung up on: they read what is queued, then the end, and may
// open again. To the server they have closed.

#include "ppsd/store/channel.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <utility>

#include "ppsd/store/attributes.hpp"
#include "ppsd/store/limits.hpp"

namespace {

// True when `text` is one or more decimal digits and nothing else.
bool isNumber(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

Channel::Channel(std::string name, ReadinessListener& listener)
    : m_name(std::move(name)), m_listener(listener) {}

void Channel::attachServer(ServerFile& server) {
    m_server = &server;
}

void Channel::detachServer() {
    m_server = nullptr;
    m_pending.clear();
    m_departedBytes.clear();
    const auto notice = std::make_shared<const std::string>("-@" + m_name + "\n");
    for (const auto& [id, client] : m_clients) {
        client->m_ended = true;
        client->enqueue(notice);
        m_listener.readinessChanged(*client);
    }
}

void Channel::attachClient(ClientFile& client) {
    m_clients.emplace(client.m_id, &client);
    addPending(client, nullptr, '+');
}

void Channel::detachClient(ClientFile& client) {
    if (m_clients.erase(client.m_id) == 0 || m_server == nullptr) {
        return;
    }
    bool isUnknown = false;
    changeBacklog(client, [&](Backlog& backlog) {
        isUnknown = backlog.isOpeningAlone();
        if (isUnknown) {
            backlog.clear();
        }
    });
    if (!isUnknown) {
        m_departedBytes[client.m_opener.user] += client.m_bytesAtServer + kDepartedClientBytes;
        addPending(client, nullptr, '-');
    }
}

void Channel::hangUp(ClientFile& client) {
    detachClient(client);
    client.m_ended = true;
    m_listener.readinessChanged(client);
}

std::string Channel::tagOf(std::uint64_t client) const {
    return "@" + m_name + "." + std::to_string(client) + "\n";
}

Channel::Pending Channel::Backlog::take() {
    Pending first = std::move(m_items.front());
    m_items.pop_front();
    return first;
}

template <typename Action>
void Channel::changeBacklog(const ClientFile& client, Action action) {
    m_pending.change(client.m_opener.user, [&](auto& processes) {
        processes.change(client.m_opener.process,
                         [&](auto& clients) { clients.change(client.m_id, action); });
    });
}

void Channel::addPending(const ClientFile& from, std::unique_ptr<std::string> text, char sign) {
    if (m_server == nullptr) {
        return;
    }
    changeBacklog(from, [&](Backlog& backlog) {
        backlog.add({from.m_id, std::move(text), from.m_opener, sign});
    });
    m_listener.readinessChanged(*m_server);
}

std::string Channel::takePending() {
    if (m_pending.empty()) {
        return {};
    }
    Pending read = m_pending.take();
    giveBack(read);
    return read.text == nullptr ? textOf(read) : std::move(*read.text);
}

// A client that opened is introduced: what it may do is the server's to decide, and the client
// cannot say it for itself.
std::string Channel::textOf(const Pending& notice) const {
    std::string text = notice.sign + tagOf(notice.client);
    if (notice.sign == '+') {
        text += "uid:n:" + std::to_string(notice.opener.user) +
                "\ngid:n:" + std::to_string(notice.opener.group) +
                "\npid:n:" + std::to_string(notice.opener.process) + "\n";
    }
    return text;
}

// The room that `read` took until now.
void Channel::giveBack(const Pending& read) {
    const auto client = m_clients.find(read.client);
    if (client != m_clients.end()) {
        client->second->m_bytesAtServer -= read.text == nullptr ? 0 : read.text->size();
        return;
    }
    const auto departed = m_departedBytes.find(read.opener.user);
    if (read.text != nullptr) {
        departed->second -= read.text->size();
    } else if (read.sign == '-') {
        departed->second -= kDepartedClientBytes;
    }
    if (departed->second == 0) {
        m_departedBytes.erase(departed);
    }
}

int Channel::sendToServer(ClientFile& from, std::string_view text) {
    if (m_server == nullptr || from.m_ended) {
        return EPIPE;
    }
    if (text.size() > kMessageMaxBytes) {
        return EMSGSIZE;
    }
    std::vector<AttributeChange> lines;
    const int error = parseChanges(text, ObjectLines::kDropped, lines);
    if (error != 0) {
        return error;
    }
    std::string message = tagOf(from.m_id);
    appendLines(message, lines);
    const auto departed = m_departedBytes.find(from.m_opener.user);
    if (from.m_bytesAtServer + message.size() > kServerQueuePerClientMaxBytes ||
        (departed != m_departedBytes.end() && departed->second > kServerQueueDepartedMaxBytes)) {
        return ENOBUFS;
    }
    from.m_bytesAtServer += message.size();
    addPending(from, std::make_unique<std::string>(std::move(message)), 0);
    return 0;
}

// Cuts a leading line "@NAME" or "@NAME.ID" off `text`. With an ID, `toOne` is set and `receiver`
// is that client, or null when it is gone. EINVAL for the name of another object.
int Channel::parseAddress(std::string_view& text, ClientFile*& receiver, bool& toOne) const {
    if (text.empty() || text.front() != '@') {
        return 0;
    }
    const std::size_t feed = text.find('\n');
    if (feed == std::string_view::npos) {
        return EINVAL;
    }
    std::string_view address = text.substr(1, feed - 1);
    text.remove_prefix(feed + 1);
    if (address == m_name) {
        return 0;
    }
    if (!address.starts_with(m_name) || address[m_name.size()] != '.') {
        return EINVAL;
    }
    address.remove_prefix(m_name.size() + 1);
    if (!isNumber(address)) {
        return EINVAL;
    }
    toOne = true;
    std::uint64_t id = 0;
    // A number too large for an id is the id of nobody: ids start at 1.
    std::from_chars(address.data(), address.data() + address.size(), id);
    const auto client = m_clients.find(id);
    receiver = client == m_clients.end() ? nullptr : client->second;
    return 0;
}

int Channel::sendToClients(std::string_view text) {
    if (text.size() > kMessageMaxBytes) {
        return EMSGSIZE;
    }
    ClientFile* receiver = nullptr;
    bool toOne = false;
    std::vector<AttributeChange> lines;
    int error = parseAddress(text, receiver, toOne);
    if (error == 0) {
        error = parseChanges(text, ObjectLines::kRefused, lines);
    }
    if (error != 0) {
        return error;
    }
    std::string content = "@" + m_name + "\n";
    appendLines(content, lines);
    const auto message = std::make_shared<const std::string>(std::move(content));
    if (!toOne) {
        sendToAll(message);
        return 0;
    }
    if (receiver == nullptr) {
        return 0;
    }
    if (!receiver->hasRoomFor(message->size())) {
        return ENOBUFS;
    }
    receiver->enqueue(message);
    m_listener.readinessChanged(*receiver);
    return 0;
}

void Channel::sendToAll(const std::shared_ptr<const std::string>& message) {
    std::vector<ClientFile*> full;
    for (const auto& [id, client] : m_clients) {
        if (!client->hasRoomFor(message->size())) {
            full.push_back(client);
            continue;
        }
        client->enqueue(message);
        m_listener.readinessChanged(*client);
    }
    for (ClientFile* client : full) {
        hangUp(*client);
    }
}

ServerFile::ServerFile(std::shared_ptr<Channel> channel, OpenOptions options,
                       std::function<void()> onClose)
    : OpenFile(options), m_channel(std::move(channel)), m_onClose(std::move(onClose)) {
    m_channel->attachServer(*this);
}

ServerFile::~ServerFile() {
    m_onClose();
    m_channel->detachServer();
}

ReadOutcome ServerFile::read(std::size_t size, std::string& bytes) {
    bytes = m_channel->takePending();
    if (bytes.empty()) {
        return ReadOutcome::kNothing;
    }
    bytes.resize(std::min(size, bytes.size()));
    return ReadOutcome::kBytes;
}

int ServerFile::write(std::string_view text) {
    return m_channel->sendToClients(text);
}

Readiness ServerFile::readiness() const {
    return {m_channel->hasPending(), false};
}

ClientFile::ClientFile(std::shared_ptr<Channel> channel, OpenOptions options, std::uint64_t id,
                       Opener opener, bool reads)
    : OpenFile(options), m_channel(std::move(channel)), m_id(id), m_opener(opener), m_reads(reads) {
    m_channel->attachClient(*this);
}

ClientFile::~ClientFile() {
    m_channel->detachClient(*this);
}

bool ClientFile::hasRoomFor(std::size_t bytes) const {
    return !m_reads || m_queuedBytes + bytes <= kClientQueueMaxBytes;
}

void ClientFile::enqueue(const std::shared_ptr<const std::string>& message) {
    if (m_reads) {
        m_queuedBytes += message->size();
        m_queue.push_back(message);
    }
}

ReadOutcome ClientFile::read(std::size_t size, std::string& bytes) {
    if (m_queue.empty()) {
        return m_ended ? ReadOutcome::kEnd : ReadOutcome::kNothing;
    }
    const std::string& message = *m_queue.front();
    bytes.assign(message, m_readOfFirst, size);
    m_readOfFirst += bytes.size();
    if (m_readOfFirst == message.size()) {
        m_queuedBytes -= message.size();
        m_readOfFirst = 0;
        m_queue.pop_front();
    }
    return ReadOutcome::kBytes;
}

int ClientFile::write(std::string_view text) {
    return m_channel->sendToServer(*this, text);
}

Readiness ClientFile::readiness() const {
    return {!m_queue.empty() || m_ended, m_ended};
}
