// One line of life: connect, create the session, ask whether its channel stands; if it does not,
// take what waits and create it; stay. Each step waits for the answer of the one before; whatever
// fails sets a time (m_due) at which the line begins anew. The order matters to the agent as well:
// a channel asked for before the session's answer could be torn down by work that the agent still
// has from before its restart, and one asked for while pushes wait on the session's port takes that
// port from under them.
//
// Everything that happens ends in dispatch(): public methods only send, and what they find broken
// they note (m_lost) for the next dispatch() to handle.

#include "client/push_client_impl.hpp"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace quilclient {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kFullQueuePause{50};  // until a full queue of the agent is tried again
// For an answer that comes at once or, from an agent that does not know the request, never.
constexpr milliseconds kQueryTimeout{2000};
constexpr milliseconds kLongestWait{60000};  // of one poll, so that its int never overflows

Result checkConfig(const Config& config) {
    std::string text;
    return encodeRequest({Verb::CreateChannel, config.appId, config.ppgUrl}, "18446744073709551615",
                         &text);
}

}  // namespace

PushClientImpl::PushClientImpl(Config config, Handlers handlers)
    : m_config(std::move(config)),
      m_handlers(std::move(handlers)),
      m_configCheck(checkConfig(m_config)),
      m_poll(epoll_create1(EPOLL_CLOEXEC)),
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_due(Clock::now()),
      m_reconnect(m_config.firstReconnect, m_config.longestReconnect),
      m_channelRetry(m_config.firstChannelRetry, m_config.longestChannelRetry) {
    if (m_configCheck.ok() && (m_poll < 0 || m_wake < 0 || !watch(m_wake).ok())) {
        m_configCheck = {kSystemError, std::string("no descriptor: ") + std::strerror(errno)};
    }
}

PushClientImpl::~PushClientImpl() {
    m_connection.close();
    for (const int descriptor : {m_poll, m_wake}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

Result PushClientImpl::watch(int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    if (epoll_ctl(m_poll, EPOLL_CTL_ADD, descriptor, &event) == 0) {
        return {};
    }
    return {kSystemError, std::string("cannot watch a descriptor: ") + std::strerror(errno)};
}

// --- The loop ------------------------------------------------------------------------------------

Result PushClientImpl::run() {
    while (!m_isStopped.exchange(false)) {
        Result result = dispatch();
        if (!result.ok()) {
            return result;
        }
        if (!m_isStopped) {
            result = wait();
        }
        if (!result.ok()) {
            return result;
        }
    }
    return {};
}

Result PushClientImpl::wait() {
    const auto pause = std::min(untilDue(), kLongestWait);
    pollfd entry{m_poll, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(pause.count())) < 0 && errno != EINTR) {
        return {kSystemError, std::string("poll failed: ") + std::strerror(errno)};
    }
    return {};
}

void PushClientImpl::stop() noexcept {
    const int savedErrno = errno;
    m_isStopped = true;
    // A full counter (EAGAIN) wakes as well as a new count, so the result does not matter.
    [[maybe_unused]] const int result = eventfd_write(m_wake, 1);
    errno = savedErrno;
}

milliseconds PushClientImpl::untilDue() const {
    std::optional<Clock::time_point> first = m_due;
    const auto consider = [&first](Clock::time_point time) {
        first = first ? std::min(*first, time) : time;
    };
    if (m_lost) {
        return milliseconds(0);
    }
    for (const auto& [id, pending] : m_pending) {
        consider(pending.deadline);
    }
    if (m_connection.hasBacklog()) {
        consider(Clock::now() + kFullQueuePause);
    }
    if (!first) {
        return milliseconds::max();
    }
    return std::max(std::chrono::ceil<milliseconds>(*first - Clock::now()), milliseconds(0));
}

Result PushClientImpl::dispatch() {
    if (!m_configCheck.ok()) {
        return m_configCheck;
    }
    m_failure = {};
    eventfd_t ignored = 0;
    eventfd_read(m_wake, &ignored);
    if (m_connection.isOpen() && !m_lost) {
        receive();
    }
    if (m_connection.isOpen() && !m_lost) {
        const Result flushed = m_connection.flush();
        if (!flushed.ok()) {
            m_lost = flushed;
        }
    }
    expirePending();
    stepDue();
    if (m_lost) {
        disconnect(*std::exchange(m_lost, std::nullopt));
    }
    return m_failure;
}

void PushClientImpl::stepDue() {
    if (m_lost || !m_due || Clock::now() < *m_due) {
        return;
    }
    m_due.reset();
    if (!m_connection.isOpen()) {
        connect();
    } else if (m_phase == Phase::Waiting) {
        askForChannel();
    } else {
        m_phase = Phase::Session;
        ask(Verb::CreateSession, "");
    }
}

// --- Connecting ----------------------------------------------------------------------------------

void PushClientImpl::connect() {
    Result result = m_connection.open(m_config.open);
    if (result.ok()) {
        result = watch(m_connection.descriptor());
    }
    if (!result.ok()) {
        disconnect(result);
        return;
    }
    // Told once the agent has answered: that something can be opened there proves no agent.
    m_phase = Phase::Session;
    ask(Verb::CreateSession, "");
}

void PushClientImpl::disconnect(const Result& reason) {
    m_connection.close();
    m_phase = Phase::Away;
    m_due = Clock::now() + m_reconnect.next();
    const bool wasDestroying = isPending(Verb::DestroyChannel) || m_isDestroyDue;
    m_isDestroyDue = false;
    m_pending.clear();
    tellConnection(reason);
    if (wasDestroying) {
        call(m_handlers.onChannelDestroyed, reason);
    }
}

void PushClientImpl::tellConnection(const Result& result) {
    if (result.code != m_lastConnectionCode) {
        m_lastConnectionCode = result.code;
        call(m_handlers.onConnection, result);
    }
}

// --- Requests ------------------------------------------------------------------------------------

Result PushClientImpl::request(Verb verb, const std::string& argument) {
    if (!m_connection.isOpen() || m_lost) {
        return resultOf(kNotConnected);
    }
    const std::string id = std::to_string(++m_lastRequestId);
    std::string text;
    Result result = encodeRequest({verb, m_config.appId, argument}, id, &text);
    if (!result.ok()) {
        return result;
    }
    result = m_connection.send(std::move(text));
    if (result.ok() && isAnswered(verb)) {
        const milliseconds timeout = std::max(m_config.requestTimeout, milliseconds(1));
        m_pending[id] = {
            verb, Clock::now() +
                      (verb == Verb::QueryChannel ? std::min(timeout, kQueryTimeout) : timeout)};
    }
    if (result.code == kConnectionLost) {
        m_lost = result;
    }
    return result;
}

// A request of the client's own making, whose failure takes the usual way of its outcome.
void PushClientImpl::ask(Verb verb, const std::string& argument) {
    const Result result = request(verb, argument);
    if (!result.ok() && !m_lost) {
        handleOutcome(verb, result);
    }
}

bool PushClientImpl::hasSession() const {
    return m_phase == Phase::Query || m_phase == Phase::Waiting || m_phase == Phase::Channel ||
           m_phase == Phase::Ready || m_phase == Phase::NoChannel;
}

void PushClientImpl::lookForChannel() {
    m_phase = Phase::Query;
    ask(Verb::QueryChannel, "");
}

void PushClientImpl::askForChannel() {
    m_phase = Phase::Channel;
    ask(Verb::CreateChannel, m_config.ppgUrl);
}

void PushClientImpl::askForChannelWhenQuiet() {
    m_phase = Phase::Waiting;
    m_due = m_quietUntil;
}

bool PushClientImpl::isPending(Verb verb) const {
    return std::any_of(m_pending.begin(), m_pending.end(),
                       [verb](const auto& entry) { return entry.second.verb == verb; });
}

void PushClientImpl::retryChannel(const Result& reason) {
    m_phase = Phase::Retry;
    m_due = Clock::now() + m_channelRetry.next();
    call(m_handlers.onChannel, reason, std::string());
}

void PushClientImpl::applyLaunchWish() {
    if (m_launchWish) {
        ask(m_launchWish->empty() ? Verb::UnregisterFromLaunch : Verb::RegisterToLaunch,
            *m_launchWish);
    }
}

void PushClientImpl::expirePending() {
    const auto now = Clock::now();
    for (auto entry = m_pending.begin(); entry != m_pending.end();) {
        if (now < entry->second.deadline) {
            ++entry;
            continue;
        }
        const Verb verb = entry->second.verb;
        m_pending.erase(entry);
        handleOutcome(verb, resultOf(kTimedOut));
        entry = m_pending.begin();  // a handler may have added and removed some
    }
}

// --- What comes ----------------------------------------------------------------------------------

void PushClientImpl::receive() {
    std::vector<std::string> messages;
    const Result result = m_connection.receive(&messages);
    for (const std::string& text : messages) {
        handleMessage(text);
    }
    if (!result.ok()) {
        m_lost = result;
    }
}

void PushClientImpl::handleMessage(const std::string& text) {
    Incoming incoming = decodeMessage(text);
    if (!incoming.damage.empty()) {
        notice(incoming.damage);
    }
    if (isEcho(incoming)) {
        m_lost = resultOf(kObjectInTheWay);
        return;
    }
    if (incoming.kind == Incoming::PushArrived) {
        handlePush(incoming);
        // Only now: the time that the application took for it is no quiet.
        m_quietUntil = Clock::now() + m_config.quietTime;
        if (m_phase == Phase::Waiting) {
            m_due = m_quietUntil;
        }
    } else if (incoming.kind == Incoming::SimChange) {
        handleSimChange();
        if (!incoming.id.empty()) {
            handleReply(incoming);
        }
    } else {
        handleReply(incoming);
    }
}

void PushClientImpl::handleReply(const Incoming& incoming) {
    const auto found = m_pending.find(incoming.id);
    if (found == m_pending.end() || !isReplyTo(found->second.verb, incoming)) {
        notice("an answer to no open request came: msg '" + incoming.message + "', id '" +
               incoming.id + "', err " + std::to_string(incoming.error));
        return;
    }
    const Verb verb = found->second.verb;
    m_pending.erase(found);
    if (verb == Verb::CreateSession) {
        tellConnection({});
    }
    handleOutcome(verb, outcomeOf(verb, incoming), incoming);
}

void PushClientImpl::handleOutcome(Verb verb, const Result& outcome, const Incoming& incoming) {
    switch (verb) {
        case Verb::CreateSession:
            if (!outcome.ok()) {
                retryChannel(outcome);
                return;
            }
            m_reconnect.reset();
            m_phase = Phase::NoChannel;
            m_quietUntil = Clock::now() + m_config.quietTime;
            if (m_wantsChannel) {
                lookForChannel();
            }
            applyLaunchWish();
            return;
        case Verb::QueryChannel:
            if (m_phase == Phase::Query) {
                handleChannelState(outcome, incoming.channel);
            }
            return;
        case Verb::CreateChannel:
            handleChannelOutcome(outcome, incoming.token);
            return;
        case Verb::DestroyChannel:
            call(m_handlers.onChannelDestroyed, outcome);
            if (m_wantsChannel && m_phase == Phase::NoChannel) {
                askForChannelWhenQuiet();
            }
            return;
        default:
            call(m_handlers.onLaunch, outcome);
            return;
    }
}

void PushClientImpl::handleChannelOutcome(const Result& outcome, const std::string& token) {
    if (std::exchange(m_isDestroyDue, false)) {
        m_phase = Phase::NoChannel;
        if (outcome.code == kEmptyToken) {
            call(m_handlers.onChannelDestroyed, Result{});
        } else {
            ask(Verb::DestroyChannel, "");
        }
    } else if (!outcome.ok()) {
        retryChannel(outcome);
    } else {
        tellChannel(token);
    }
}

void PushClientImpl::handleChannelState(const Result& outcome, const ChannelState& channel) {
    if (channel.standsFor(m_config.ppgUrl)) {
        tellChannel(channel.token);
    } else if (outcome.ok() && !channel.isListening) {
        askForChannel();  // nothing waits anywhere
    } else {
        askForChannelWhenQuiet();
    }
}

void PushClientImpl::tellChannel(const std::string& token) {
    m_channelRetry.reset();
    m_phase = Phase::Ready;
    call(m_handlers.onChannel, Result{}, token);
}

void PushClientImpl::handlePush(Incoming& incoming) {
    if (!incoming.damage.empty()) {
        // Nobody will ever answer what the application never saw.
        if (incoming.push.senderWaits) {
            answerPush(Verb::RejectPush, incoming.id);
        }
        return;
    }
    incoming.push.isDuplicate = m_recentIds.remember(incoming.id);
    Answer answer = Answer::Reject;
    if (m_handlers.onPush) {
        try {
            answer = m_handlers.onPush(incoming.push);
        } catch (const std::exception& thrown) {
            m_failure = {kHandlerThrew, thrown.what()};
        } catch (...) {
            m_failure = resultOf(kHandlerThrew);
        }
    }
    if (!incoming.push.senderWaits || answer == Answer::Later) {
        return;
    }
    const Result result =
        answerPush(answer == Answer::Accept ? Verb::AcceptPush : Verb::RejectPush, incoming.id);
    if (!result.ok()) {
        notice("push '" + incoming.id + "' could not be answered: " + result.words);
    }
}

void PushClientImpl::handleSimChange() {
    const bool wasReady = m_phase == Phase::Ready;
    call(m_handlers.onSimChange);
    if (m_phase == Phase::Query) {
        askForChannelWhenQuiet();  // the answer may be older than the change
    }
    if (wasReady && m_phase == Phase::Ready) {
        askForChannel();
    }
}

void PushClientImpl::notice(const std::string& words) {
    call(m_handlers.onNotice, words);
}

template <typename Handler, typename... Arguments>
auto PushClientImpl::call(const Handler& handler, const Arguments&... arguments)
    -> decltype(handler(arguments...)) {
    if (!handler) {
        return;
    }
    try {
        handler(arguments...);
    } catch (const std::exception& thrown) {
        m_failure = {kHandlerThrew, thrown.what()};
    } catch (...) {
        m_failure = resultOf(kHandlerThrew);
    }
}

// --- What the application asks for ---------------------------------------------------------------

Result PushClientImpl::answerPush(Verb verb, const std::string& id) {
    return request(verb, id);
}

Result PushClientImpl::wishLaunch(std::string launchString) {
    if (!launchString.empty()) {
        std::string text;
        Result check = encodeRequest({Verb::RegisterToLaunch, m_config.appId, launchString},
                                     "18446744073709551615", &text);
        if (!check.ok()) {
            return check;
        }
    }
    m_launchWish = std::move(launchString);
    if (hasSession()) {
        applyLaunchWish();
    }
    return {};
}

// The agent works off a destroyChannel in two steps, with room for other requests between them.
// Sent while a createChannel is under way, or followed by one at once, they would undo each other
// in the wrong order; so each waits for the other's answer.
Result PushClientImpl::destroyChannel() {
    const bool isChannelKnown = m_phase == Phase::Query || m_phase == Phase::Waiting ||
                                m_phase == Phase::Channel || m_phase == Phase::Ready ||
                                m_phase == Phase::Retry;
    if (!isChannelKnown) {
        return resultOf(kNotConnected);
    }
    m_wantsChannel = false;
    if (isPending(Verb::CreateChannel)) {
        m_isDestroyDue = true;
        return {};
    }
    m_phase = Phase::NoChannel;
    m_due.reset();
    return request(Verb::DestroyChannel, "");
}

Result PushClientImpl::createChannel() {
    m_wantsChannel = true;
    if (m_phase != Phase::NoChannel || isPending(Verb::DestroyChannel)) {
        return {};  // the line of life, or the answer to destroyChannel, leads there by itself
    }
    if (!m_connection.isOpen() || m_lost) {
        return resultOf(kNotConnected);
    }
    // Not believing one that the agent still has: it was to be destroyed, and may be at the push
    // server.
    askForChannelWhenQuiet();
    return {};
}

}  // namespace quilclient
