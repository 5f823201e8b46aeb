// Messages are made once, as the text that the reader gets, and moved or shared from then on: a
// broadcast puts one string into every client's queue. Every queue operation costs the same however
// long the queue is.
//
// A client that opens and closes before the server has heard of it, and says nothing, takes its
// notice with it: an application that opens and closes in a storm leaves what was read of it and
// nothing more. What is left of a client that has gone counts for its user until it was read.
//
// A broadcast goes to those who have room. The others have missed a message of a stream, which
// would look whole to them, so they are hung up on: they read what is queued, then the end, and may
// open again. To the server they have closed.

#include "ppsd/store/channel.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <new>
#include <utility>
#include <vector>

#include "ppsd/store/attributes.hpp"
#include "ppsd/store/limits.hpp"

namespace {

constexpr std::uint64_t kNobody = ~std::uint64_t{0};  // an id that is never given

// True when `text` is one or more decimal digits and nothing else.
bool isNumber(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

Channel::Channel(std::string name, ReadinessListener& listener, Accounts& accounts)
    : m_name(std::move(name)),
      m_endNotice("-" + objectLine(m_name)),
      m_listener(listener),
      m_accounts(accounts) {}

void Channel::attachServer(ServerFile& server, uid_t user) {
    m_server = &server;
    m_serverUser = user;
}

void Channel::detachServer() noexcept {
    m_server = nullptr;
    m_pending.clear();
    for (const auto& [id, client] : m_clients) {
        client->m_state = ClientFile::State::kServerGone;
        m_listener.readinessChanged(*client);
    }
    m_clients.clear();
}

template <typename Action>
void Channel::changeBacklog(std::uint64_t id, Opener opener, Action action) {
    m_pending.change(opener.user, [&](auto& processes) {
        processes.change(opener.process, [&](auto& clients) { clients.change(id, action); });
    });
}

int Channel::admit(std::uint64_t id, Opener opener) {
    Charge charge(m_accounts, opener.user, Holding::kMemory);
    if (!charge.grow(kClientBytes)) {
        return ENOBUFS;
    }
    changeBacklog(id, opener,
                  [&](Backlog& backlog) { backlog.open(id, opener, std::move(charge)); });
    return 0;
}

void Channel::dismiss(std::uint64_t id, Opener opener) noexcept {
    changeBacklog(id, opener, [](Backlog& backlog) { backlog.close(); });
}

void Channel::attachClient(ClientFile& client) {
    m_clients.emplace(client.m_id, &client);
    if (m_server != nullptr) {
        m_listener.readinessChanged(*m_server);
    }
}

void Channel::detachClient(ClientFile& client) noexcept {
    if (m_clients.erase(client.m_id) == 0 || m_server == nullptr) {
        return;
    }
    dismiss(client.m_id, client.m_opener);
    m_listener.readinessChanged(*m_server);
}

void Channel::hangUp(ClientFile& client) noexcept {
    detachClient(client);
    client.m_state = ClientFile::State::kHungUp;
    m_listener.readinessChanged(client);
}

std::string Channel::tagOf(std::uint64_t client) const {
    return "@" + m_name + "." + std::to_string(client) + "\n";
}

void Channel::Backlog::open(std::uint64_t id, Opener opener, Charge charge) {
    m_id = id;
    m_opener = opener;
    m_charge = std::move(charge);
    m_isOpening = true;
}

void Channel::Backlog::add(Message message) {
    m_messages.push_back(std::move(message));
    m_bytes += m_messages.back().text.size();
}

bool Channel::Backlog::takeBack() noexcept {
    if (m_messages.empty()) {
        return false;
    }
    m_bytes -= m_messages.back().text.size();
    m_messages.pop_back();
    return true;
}

void Channel::Backlog::close() noexcept {
    m_isClosing = !m_isOpening || !m_messages.empty();
    m_isOpening = m_isOpening && m_isClosing;
    m_isClosed = true;
}

Channel::Pending Channel::Backlog::take() {
    Pending taken{m_id, m_opener, 0, {}};
    if (m_isOpening) {
        taken.sign = '+';
        m_isOpening = false;
    } else if (!m_messages.empty()) {
        taken.text = std::move(m_messages.front().text);
        m_bytes -= taken.text.size();
        m_messages.pop_front();
    } else {
        taken.sign = '-';
        m_isClosing = false;
    }
    return taken;
}

// A client that opened is introduced: what it may do is the server's to decide, and the client
// cannot say it for itself.
std::string Channel::takePending() {
    if (m_pending.empty()) {
        return {};
    }
    Pending taken = m_pending.take();
    if (taken.sign == 0) {
        return std::move(taken.text);
    }
    std::string text = taken.sign + tagOf(taken.client);
    if (taken.sign == '+') {
        text += "uid:n:" + std::to_string(taken.opener.user) +
                "\ngid:n:" + std::to_string(taken.opener.group) +
                "\npid:n:" + std::to_string(taken.opener.process) + "\n";
    }
    return text;
}

std::string Channel::listClients() const {
    std::string text = objectLine(m_name);
    for (const auto& [id, client] : m_clients) {
        const Opener& opener = client->m_opener;
        text += std::to_string(id) + ":json:{\"uid\":" + std::to_string(opener.user) +
                ",\"gid\":" + std::to_string(opener.group) +
                ",\"pid\":" + std::to_string(opener.process) + "}\n";
    }
    return text;
}

int Channel::sendToServer(ClientFile& from, uid_t writer, std::string_view text) {
    if (from.m_state != ClientFile::State::kConnected) {
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
    Message message{tagOf(from.m_id), Charge(m_accounts, writer, Holding::kMemory)};
    appendLines(message.text, lines);
    bool isAdded = false;
    changeBacklog(from.m_id, from.m_opener, [&](Backlog& backlog) {
        const std::size_t bytes = message.text.size();
        if (backlog.bytes() + bytes <= kServerQueuePerClientMaxBytes &&
            message.charge.grow(bytes)) {
            backlog.add(std::move(message));
            isAdded = true;
        }
    });
    if (!isAdded) {
        return ENOBUFS;
    }
    m_listener.readinessChanged(*m_server);
    return 0;
}

void Channel::takeBackFrom(ClientFile& client) noexcept {
    if (client.m_state != ClientFile::State::kConnected) {
        return;
    }
    bool isTakenBack = false;
    changeBacklog(client.m_id, client.m_opener,
                  [&](Backlog& backlog) { isTakenBack = backlog.takeBack(); });
    if (!isTakenBack) {
        hangUp(client);
    }
}

void Channel::takeBackFromServer() noexcept {
    const std::shared_ptr<const std::string> last = m_lastSent.lock();
    for (auto next = m_clients.begin(); next != m_clients.end();) {
        ClientFile& client = *next->second;
        ++next;  // past it, as one that is hung up on leaves
        const bool isReceiver = m_lastReceiver == 0 || m_lastReceiver == client.m_id;
        if (isReceiver && client.m_reads && !client.takeBack(last)) {
            hangUp(client);
        }
    }
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
    std::string content = objectLine(m_name);
    appendLines(content, lines);
    const auto message = std::make_shared<const std::string>(std::move(content));
    m_lastSent = message;
    m_lastReceiver = receiver == nullptr ? 0 : receiver->m_id;
    if (!toOne) {
        sendToAll(message);
        return 0;
    }
    if (receiver == nullptr) {
        m_lastReceiver = kNobody;
        return 0;
    }
    if (!receiver->enqueue(message)) {
        return ENOBUFS;
    }
    m_listener.readinessChanged(*receiver);
    return 0;
}

void Channel::sendToAll(const std::shared_ptr<const std::string>& message) {
    for (auto next = m_clients.begin(); next != m_clients.end();) {
        ClientFile& client = *next->second;
        ++next;  // past it, as one that is hung up on leaves
        if (client.enqueue(message)) {
            m_listener.readinessChanged(client);
        } else {
            hangUp(client);
        }
    }
}

ServerFile::ServerFile(std::shared_ptr<Channel> channel, OpenOptions options, Charge place,
                       uid_t user, std::function<void()> onClose)
    : OpenFile(options, std::move(place)),
      m_channel(std::move(channel)),
      m_onClose(std::move(onClose)) {
    m_channel->attachServer(*this, user);
}

ServerFile::~ServerFile() {
    m_onClose();
    m_channel->detachServer();
}

ReadOutcome ServerFile::read(uid_t reader, std::size_t size, std::string& bytes) {
    m_channel->m_serverUser = reader;
    bytes = m_channel->takePending();
    if (bytes.empty()) {
        return ReadOutcome::kNothing;
    }
    bytes.resize(std::min(size, bytes.size()));
    return ReadOutcome::kBytes;
}

void ServerFile::write(uid_t /*writer*/, std::string_view text, const Done& done) {
    done(m_channel->sendToClients(text));
}

void ServerFile::takeBackCutWrite() {
    m_channel->takeBackFromServer();
}

Readiness ServerFile::readiness() const {
    return {m_channel->hasPending(), false};
}

ClientFile::ClientFile(std::shared_ptr<Channel> channel, OpenOptions options, Charge place,
                       std::uint64_t id, Opener opener, bool reads)
    : OpenFile(options, std::move(place)),
      m_channel(std::move(channel)),
      m_id(id),
      m_opener(opener),
      m_reads(reads),
      m_queueCharge(m_channel->m_accounts, opener.user, Holding::kMemory) {
    m_channel->attachClient(*this);
}

ClientFile::~ClientFile() {
    m_channel->detachClient(*this);
}

bool ClientFile::enqueue(const std::shared_ptr<const std::string>& message) {
    if (!m_reads) {
        return true;
    }
    const std::size_t bytes = message->size();
    if (m_queuedBytes + bytes > kClientQueueMaxBytes) {
        return false;
    }
    try {
        if (!m_queueCharge.grow(bytes)) {
            return false;
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    try {
        m_queue.push_back(message);
    } catch (const std::bad_alloc&) {
        m_queueCharge.shrink(bytes);
        return false;
    }
    m_queuedBytes += bytes;
    return true;
}

// False when it is not there any more, or has been begun.
bool ClientFile::takeBack(const std::shared_ptr<const std::string>& message) noexcept {
    const bool isBegun = m_queue.size() == 1 && m_readOfFirst != 0;
    if (m_queue.empty() || m_queue.back() != message || isBegun) {
        return false;
    }
    m_queuedBytes -= message->size();
    m_queueCharge.shrink(message->size());
    m_queue.pop_back();
    return true;
}

ReadOutcome ClientFile::read(uid_t /*reader*/, std::size_t size, std::string& bytes) {
    const bool isNoticeNext = m_queue.empty() && m_state == State::kServerGone && !m_isEndRead;
    if (m_queue.empty() && !isNoticeNext) {
        return m_state == State::kConnected ? ReadOutcome::kNothing : ReadOutcome::kEnd;
    }
    const std::string& next = isNoticeNext ? m_channel->m_endNotice : *m_queue.front();
    bytes.assign(next, m_readOfFirst, size);
    m_readOfFirst += bytes.size();
    if (m_readOfFirst < next.size()) {
        return ReadOutcome::kBytes;
    }
    m_readOfFirst = 0;
    if (isNoticeNext) {
        m_isEndRead = true;
    } else {
        m_queuedBytes -= next.size();
        m_queueCharge.shrink(next.size());
        m_queue.pop_front();
    }
    return ReadOutcome::kBytes;
}

void ClientFile::write(uid_t writer, std::string_view text, const Done& done) {
    done(m_channel->sendToServer(*this, writer, text));
}

void ClientFile::takeBackCutWrite() {
    m_channel->takeBackFrom(*this);
}

Readiness ClientFile::readiness() const {
    const bool hasEnded = m_state != State::kConnected;
    return {!m_queue.empty() || hasEnded, hasEnded};
}

ClientListFile::ClientListFile(std::string text, OpenOptions options, Charge place, Charge charge)
    : OpenFile(options, std::move(place)), m_text(std::move(text)), m_charge(std::move(charge)) {}

ReadOutcome ClientListFile::read(uid_t /*reader*/, std::size_t size, std::string& bytes) {
    bytes = m_text.substr(0, size);
    m_text.erase(0, size);
    m_charge.shrink(bytes.size());
    return bytes.empty() ? ReadOutcome::kNothing : ReadOutcome::kBytes;
}

void ClientListFile::write(uid_t /*writer*/, std::string_view /*text*/, const Done& done) {
    done(EBADF);
}

Readiness ClientListFile::readiness() const {
    return {!m_text.empty(), false};
}
