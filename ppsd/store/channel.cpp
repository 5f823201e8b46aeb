// Messages are made once, as the text that the reader gets, and moved or shared from then on: a
// broadcast puts one string into every client's queue. Every queue operation costs the same however
// long the queue is.
//
// A broadcast is one write and so obeys the rule of all writes: when one of the clients has no
// room, it fails and nobody gets it. The server may then address the others one by one.

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
    const auto notice = std::make_shared<const std::string>("-@" + m_name + "\n");
    for (const auto& [id, client] : m_clients) {
        client->m_ended = true;
        client->enqueue(notice);
        m_listener.readinessChanged(*client);
    }
}

void Channel::attachClient(ClientFile& client) {
    m_clients.emplace(client.m_id, &client);
    addNotice('+', client.m_id);
}

void Channel::detachClient(ClientFile& client) {
    m_clients.erase(client.m_id);
    m_departedBytes += client.m_bytesAtServer;
    addNotice('-', client.m_id);
}

std::string Channel::tagOf(std::uint64_t client) const {
    return "@" + m_name + "." + std::to_string(client) + "\n";
}

void Channel::addNotice(char sign, std::uint64_t client) {
    addPending({client, nullptr, sign});
}

void Channel::addPending(Pending message) {
    if (m_server == nullptr) {
        return;
    }
    m_pending.push_back(std::move(message));
    m_listener.readinessChanged(*m_server);
}

std::string Channel::takePending() {
    if (m_pending.empty()) {
        return {};
    }
    Pending message = std::move(m_pending.front());
    m_pending.pop_front();
    if (message.text == nullptr) {
        return message.sign + tagOf(message.client);
    }
    const auto client = m_clients.find(message.client);
    (client == m_clients.end() ? m_departedBytes : client->second->m_bytesAtServer) -=
        message.text->size();
    return std::move(*message.text);
}

int Channel::sendToServer(ClientFile& from, std::string_view text) {
    if (m_server == nullptr) {
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
    if (from.m_bytesAtServer + message.size() > kServerQueuePerClientMaxBytes ||
        m_departedBytes > kServerQueueDepartedMaxBytes) {
        return ENOBUFS;
    }
    from.m_bytesAtServer += message.size();
    addPending({from.m_id, std::make_unique<std::string>(std::move(message))});
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
    std::vector<ClientFile*> receivers;
    if (toOne && receiver != nullptr) {
        receivers.push_back(receiver);
    } else if (!toOne) {
        for (const auto& [id, client] : m_clients) {
            receivers.push_back(client);
        }
    }
    std::string content = "@" + m_name + "\n";
    appendLines(content, lines);
    const auto message = std::make_shared<const std::string>(std::move(content));
    for (const ClientFile* client : receivers) {
        if (!client->hasRoomFor(message->size())) {
            return ENOBUFS;
        }
    }
    for (ClientFile* client : receivers) {
        client->enqueue(message);
        m_listener.readinessChanged(*client);
    }
    return 0;
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
                       bool reads)
    : OpenFile(options), m_channel(std::move(channel)), m_id(id), m_reads(reads) {
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
