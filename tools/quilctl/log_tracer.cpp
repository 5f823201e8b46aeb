#include "tools/quilctl/log_tracer.hpp"

#include <cstdlib>
#include <utility>

#include "tools/quilctl/log_line.hpp"

namespace {

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

constexpr int kTypePush = 5;
constexpr int kTypeRegister = 7;
constexpr int kTypeDeregister = 8;

std::optional<PushTrace> takeFirstOf(std::deque<PushTrace>* pushes, const std::string& appId) {
    for (auto push = pushes->begin(); push != pushes->end(); ++push) {
        if (push->appId == appId) {
            PushTrace found = *push;
            pushes->erase(push);
            return found;
        }
    }
    return std::nullopt;
}

}  // namespace

void LogTracer::take(std::string_view text, std::optional<double> time) {
    m_now = time;
    // Each of these knows whether a line is one of its own; the first that does ends the search.
    takeReceiving(text) || takeGivenUp(text) || takeQueue(text) || takeDelivery(text) ||
        takeAnswer(text) || takeChannel(text);
    takeTrouble(text);
}

void LogTracer::finish() {
    if (m_handled) {
        m_queue.push_front(*std::exchange(m_handled, std::nullopt));
    }
    if (m_receiving) {
        m_queue.push_back(*m_receiving);
    }
    m_delivered.insert(m_delivered.end(), m_queue.begin(), m_queue.end());
    for (const PushTrace& push : m_delivered) {
        onPush(push);
    }
    for (const ChannelTrace& channel : m_channels) {
        onChannel(channel);
    }
    m_receiving.reset();
    m_queue.clear();
    m_delivered.clear();
    m_channels.clear();
}

// The main thread: a connection on a port, what it read, and that it is done with it.
bool LogTracer::takeReceiving(std::string_view text) {
    if (startsWith(text, "quilAgentLoop: Port ") &&
        contains(text, " receiving data for App id [")) {
        m_receiving.emplace();
        m_receiving->appId = betweenLast(text, "App id [", "]").value_or("");
        m_receiving->received = m_now;
        return true;
    }
    if (!m_receiving) {
        return false;
    }
    if (startsWith(text, "serverIfProcessData 1: recved [")) {
        const int count = std::atoi(between(text, "recved [", "]").value_or("-1").c_str());
        m_receiving->bytes += count + (m_receiving->bytes < 0 ? 1 : 0);
        return true;
    }
    if (startsWith(text, "close new socket ret.")) {
        m_receiving->nobodyWaits = true;
        return true;
    }
    if (startsWith(text, "quilAgentLoop: serverIfProcessData port [")) {
        if (m_receiving->bytes >= 0 && m_receiving->trouble.empty()) {
            m_receiving->queued = m_now;
            m_receiving->wasQueued = true;
            m_queue.push_back(*m_receiving);
        } else if (!m_receiving->trouble.empty()) {
            onPush(*m_receiving);
        }
        m_receiving.reset();
        return true;
    }
    return false;
}

// The main thread, between two connections: one of which no more is awaited. What had come of it
// looks as if it were queued; what came before has left the queue.
bool LogTracer::takeGivenUp(std::string_view text) {
    if (m_receiving || !startsWith(text, "serverIfProcessData: push for app id [")) {
        return false;
    }
    const std::string appId = between(text, "app id [", "] ").value_or("");
    PushTrace push = takeFirstOf(&m_queue, appId).value_or(PushTrace{});
    push.appId = appId;
    push.trouble = text.substr(std::string_view("serverIfProcessData: ").size());
    onPush(push);
    return true;
}

// The handler thread: it took a message of some type.
bool LogTracer::takeQueue(std::string_view text) {
    if (m_handledType == kTypePush && m_handled && startsWith(text, "app id[")) {
        takePushOf(between(text, "app id[", "] clientId").value_or(""));
        return true;
    }
    const std::size_t digits = text.find_first_not_of("0123456789");
    if (digits == 0 || digits == std::string_view::npos || text.substr(digits) != " received") {
        return false;
    }
    endHandled();
    m_handledType = std::atoi(std::string(text).c_str());
    if (m_handledType == kTypePush) {
        takePush();
    }
    return true;
}

// Whose it is, the next line tells; until then it is the first of the queue.
void LogTracer::takePush() {
    m_handled.emplace();
    // The handler may be quicker than the line with which the main thread ends.
    if (m_queue.empty() && m_receiving && m_receiving->bytes >= 0) {
        m_receiving->queued = m_now;
        m_handled = std::exchange(m_receiving, std::nullopt);
    } else if (!m_queue.empty()) {
        m_handled = m_queue.front();
        m_queue.pop_front();
    }
    m_handled->taken = m_now;
    m_handled->wasQueued = true;
    m_handled->wasTaken = true;
}

// One whose bytes came in parts is passed by others.
void LogTracer::takePushOf(const std::string& appId) {
    if (m_handled->appId == appId) {
        return;
    }
    PushTrace taken = takeFirstOf(&m_queue, appId).value_or(PushTrace{});
    taken.appId = appId;
    taken.taken = m_handled->taken;
    taken.wasQueued = true;
    taken.wasTaken = true;
    if (!m_handled->appId.empty()) {
        m_handled->taken.reset();
        m_handled->wasTaken = false;
        m_queue.push_front(*m_handled);
    }
    m_handled = taken;
}

// The handler thread is done with its push: an application has it, or nobody ever will.
void LogTracer::endHandled() {
    m_isWriting = false;
    if (!m_handled) {
        return;
    }
    PushTrace push = *std::exchange(m_handled, std::nullopt);
    if (push.wasDelivered && !push.nobodyWaits) {
        m_delivered.push_back(push);
        return;
    }
    if (!push.wasDelivered && push.trouble.empty()) {
        push.trouble = "closed undelivered: the session has no channel";
    }
    onPush(push);
}

bool LogTracer::takeDelivery(std::string_view text) {
    if (!m_handled) {
        return false;
    }
    if (startsWith(text, "sendMessage: Callback [pushNotification]")) {
        m_isWriting = true;
        return true;
    }
    if (m_isWriting && startsWith(text, "addData: name [Push-Message-ID] value[")) {
        m_handled->id = betweenLast(text, "value[", "]").value_or("");
        return true;
    }
    if (m_isWriting && startsWith(text, "Wrote ") && contains(text, " bytes to pps.")) {
        m_isWriting = false;
        if (startsWith(text, "Wrote -")) {
            m_handled->trouble = "the object service did not take it";
        } else {
            m_handled->wasDelivered = true;
            m_handled->delivered = m_now;
        }
        endHandled();
        return true;
    }
    return false;
}

PushTrace* LogTracer::findDelivered(const std::string& id) {
    PushTrace* nameless = nullptr;
    for (PushTrace& push : m_delivered) {
        if (push.id == id) {
            return &push;
        }
        // Ids that the agent made up stand nowhere in the log; they begin with the application's.
        const bool isMadeUp = push.id.empty() && startsWith(id, push.appId);
        nameless = nameless == nullptr && isMadeUp ? &push : nameless;
    }
    return nameless;
}

// The main thread: an application's answer. All is done when the thread gets back to its loop.
bool LogTracer::takeAnswer(std::string_view text) {
    const bool isAccept = startsWith(text, "acceptPush called and Push id [");
    if (isAccept || startsWith(text, "rejectPush called and Push id [")) {
        endAnswered();
        const std::string id = betweenLast(text, "Push id [", "].").value_or("");
        // The answer can come before the handler thread's own last line.
        if (findDelivered(id) == nullptr && m_handled && m_isWriting) {
            m_handled->wasDelivered = true;
            m_handled->delivered = m_now;
            endHandled();
        }
        if (PushTrace* push = findDelivered(id)) {
            push->id = id;
            push->answer = isAccept ? "accepted" : "rejected";
            push->answered = m_now;
            m_answering = id;
        }
        return true;
    }
    if (startsWith(text, "quilAgentLoop: All the valid ports are")) {
        endAnswered();
        return true;
    }
    return false;
}

void LogTracer::endAnswered() {
    if (!m_answering) {
        return;
    }
    for (auto push = m_delivered.begin(); push != m_delivered.end(); ++push) {
        if (push->id == *m_answering) {
            push->closed = m_now;
            onPush(*push);
            m_delivered.erase(push);
            break;
        }
    }
    m_answering.reset();
}

ChannelTrace* LogTracer::findChannel(const std::string& appId, bool isDestroying, bool wasTaken) {
    for (ChannelTrace& channel : m_channels) {
        if (channel.appId == appId && channel.isDestroying == isDestroying &&
            channel.wasTaken == wasTaken) {
            return &channel;
        }
    }
    return nullptr;
}

// The one that the line names, or the only one that is under way.
ChannelTrace* LogTracer::findChannelInTrouble(std::string_view text) {
    ChannelTrace* only = nullptr;
    int count = 0;
    for (ChannelTrace& channel : m_channels) {
        if (!channel.wasTaken) {
            continue;
        }
        const std::string query = "serviceid=" + channel.appId;
        if (contains(text, query + "&") || contains(text, query + "]") ||
            contains(text, "[" + channel.appId + "]")) {
            return &channel;
        }
        only = &channel;
        ++count;
    }
    return count == 1 ? only : nullptr;
}

void LogTracer::endChannel(const ChannelTrace& channel) {
    onChannel(channel);
    m_channels.remove_if([&channel](const ChannelTrace& other) { return &channel == &other; });
}

// Several exchanges with push servers may be under way; an application has one at a time.
bool LogTracer::takeChannel(std::string_view text) {
    if (startsWith(text, "addMessage: msg type[7]") ||
        startsWith(text, "addMessage: msg type[8]")) {
        ChannelTrace channel;
        channel.appId = between(text, "provider id[", "] errorCode").value_or("");
        channel.isDestroying = contains(text, "type[8]");
        channel.requested = m_now;
        m_channels.push_back(channel);
        return true;
    }
    const bool isRegistration = m_handledType == kTypeRegister || m_handledType == kTypeDeregister;
    if (startsWith(text, "app id[") && isRegistration) {
        if (ChannelTrace* channel = findChannel(between(text, "app id[", "] clientId").value_or(""),
                                                m_handledType == kTypeDeregister, false)) {
            channel->taken = m_now;
            channel->wasTaken = true;
        }
        return true;
    }
    if (contains(text, "next state[Register]")) {
        if (ChannelTrace* channel =
                findChannel(between(text, "app id [", "] current").value_or(""), false, true)) {
            channel->isGood = true;
        }
        return true;
    }
    const bool isDestroyed = startsWith(text, "addMessage: msg type[3]");
    if (!isDestroyed && !startsWith(text, "addMessage: msg type[2]")) {
        return false;
    }
    if (ChannelTrace* channel = findChannel(
            between(text, "provider id[", "] errorCode").value_or(""), isDestroyed, true)) {
        if (isDestroyed) {
            channel->isGood = contains(text, "errorCode[0]");
        }
        channel->ended = m_now;
        channel->hasEnded = true;
        endChannel(*channel);
    }
    return true;
}

// Lines that tell why something went wrong.
void LogTracer::takeTrouble(std::string_view text) {
    const bool isChannel = startsWith(text, "HTTP Transport failure") ||
                           startsWith(text, "OVRA server rejected") ||
                           startsWith(text, "OVRA registration failed") ||
                           contains(text, "OVRA server rejected registration") ||
                           startsWith(text, "Error opening port");
    if (ChannelTrace* channel = isChannel ? findChannelInTrouble(text) : nullptr) {
        channel->trouble = channel->trouble.empty() ? text : channel->trouble;
    }
    if (m_handled && startsWith(text, "pushNotification: id[")) {
        m_handled->id = between(text, "id[", "] error code").value_or("");
        const std::string code = between(text, "error code[", "]").value_or("?");
        m_handled->trouble = "refused with code " + code;
    }
    if (m_receiving && startsWith(text, "serverIfProcessData: ")) {
        m_receiving->trouble = text.substr(std::string_view("serverIfProcessData: ").size());
    }
    if (m_answering && startsWith(text, "Failed to find pushId[")) {
        if (PushTrace* push = findDelivered(*m_answering)) {
            push->trouble = "nobody waited for the answer";
        }
    }
}
