#include "tools/quilctl/push_tracer.hpp"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "quilclient/result.hpp"
#include "tools/quilctl/log_line.hpp"

namespace {

constexpr int kTypePush = 5;
// An agent keeps no more connections for one session; those of pushes for which nobody waits look
// the same without -v.
constexpr std::size_t kMostDelivered = 16384;
constexpr const char* kIdInUse = "its id was in use: its connection was closed";

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

void PushTracer::take(std::string_view text, std::optional<double> time) {
    m_now = time;
    m_goneClients.take(text);
    // Each of these knows whether a line is one of its own; the first that does ends the search.
    takeReceiving(text) || takeGivenUp(text) || takeLetGo(text) || takeQueue(text) ||
        takeKeeping(text) || takeDelivery(text) || takeAnswer(text);
    takeTrouble(text);
}

void PushTracer::finish() {
    if (m_handled) {
        m_queue.push_front(*std::exchange(m_handled, std::nullopt));
    }
    if (m_receiving) {
        m_queue.push_back(*m_receiving);
    }
    m_delivered.insert(m_delivered.end(), m_queue.begin(), m_queue.end());
    for (const PushTrace& push : m_delivered) {
        onEnd(push);
    }
    m_receiving.reset();
    m_queue.clear();
    m_delivered.clear();
    m_answering.reset();
    m_goneClients = {};
}

// The main thread: a connection on a port, what it read, and that it is done with it.
bool PushTracer::takeReceiving(std::string_view text) {
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
    if (startsWith(text, "found [Push-Message-ID] and value [")) {  // with -v
        m_receiving->id = betweenLast(text, "value [", "]").value_or("");
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
            onArrival(*m_receiving);
        } else if (!m_receiving->trouble.empty()) {
            onEnd(*m_receiving);
        }
        m_receiving.reset();
        return true;
    }
    return false;
}

// The main thread, between two connections: one of which no more is awaited. What had come of it
// looks as if it were queued; what came before has left the queue.
bool PushTracer::takeGivenUp(std::string_view text) {
    const bool isLate = startsWith(text, "serverIfProcessData: push for app id [");
    const bool isOneOfTooMany = startsWith(text, "setAside: push for app id [");
    if ((!isLate || m_receiving) && !isOneOfTooMany) {
        return false;
    }
    const std::string appId = between(text, "app id [", "] ").value_or("");
    PushTrace push = takeFirstOf(&m_queue, appId).value_or(PushTrace{});
    push.appId = appId;
    push.trouble = text.substr(text.find("push for"));
    onEnd(push);
    return true;
}

// A push that waited for its answer, and whose sender is not waited for any more: it hung up (told
// with -v only), or is the oldest of too many.
bool PushTracer::takeLetGo(std::string_view text) {
    const bool hungUp = startsWith(text, "QuilSession: sender of push id[");
    if (!hungUp && !startsWith(text, "QuilSession::addPushSocket: oldest push id[")) {
        return false;
    }
    const std::string id = between(text, "push id[", "] given up")
                               .value_or(between(text, "push id[", "] hung up").value_or(""));
    const auto push = findDelivered(hungUp || !m_handled ? "" : m_handled->appId, id);
    if (push != m_delivered.end()) {
        push->trouble =
            hungUp ? "not answered: its sender hung up" : "closed without an answer: too many wait";
        endDelivered(push);
    }
    return true;
}

// The handler thread: it took a message of some type.
bool PushTracer::takeQueue(std::string_view text) {
    if (m_handledType == kTypePush && m_handled && startsWith(text, "app id[")) {
        takePushOf(between(text, "app id[", "] clientId").value_or(""));
        return true;
    }
    const std::optional<int> type = typeOfTaken(text);
    if (!type) {
        return false;
    }
    endHandled();
    m_handledType = *type;
    if (m_handledType == kTypePush) {
        takePush();
    }
    return true;
}

// Whose it is, the next line tells; until then it is the first of the queue.
void PushTracer::takePush() {
    m_handled.emplace();
    // The handler may be quicker than the line with which the main thread ends.
    if (m_queue.empty() && m_receiving && m_receiving->bytes >= 0) {
        m_receiving->queued = m_now;
        m_handled = std::exchange(m_receiving, std::nullopt);
        onArrival(*m_handled);
    } else if (!m_queue.empty()) {
        m_handled = m_queue.front();
        m_queue.pop_front();
    }
    m_handled->taken = m_now;
    m_handled->wasQueued = true;
    m_handled->wasTaken = true;
}

// One whose bytes came in parts is passed by others.
void PushTracer::takePushOf(const std::string& appId) {
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

// With -v: the session keeps the connection of the push, or does not.
bool PushTracer::takeKeeping(std::string_view text) {
    if (!m_handled || !startsWith(text, "QuilSession::addPushSocket: ")) {
        return false;
    }
    if (contains(text, ": adding push id[")) {
        m_handled->id = between(text, "push id[", "] socket").value_or("");
    } else if (contains(text, ": exception occurred")) {
        m_handled->trouble = "its connection was closed for want of memory";
    } else if (contains(text, "return_code = 0") && m_handled->trouble.empty()) {
        m_handled->trouble = kIdInUse;
    } else if (contains(text, "return_code = 1")) {
        endReplaced();
    }
    return true;
}

// The session keeps one connection for an id: that of the push in hand, so no earlier one.
void PushTracer::endReplaced() {
    const auto isReplaced = [this](const PushTrace& push) {
        return push.appId == m_handled->appId && push.id == m_handled->id;
    };
    for (PushTrace& push : m_delivered) {
        if (isReplaced(push)) {
            push.trouble = "its sender had hung up; sent again";
            onEnd(push);
        }
    }
    m_delivered.remove_if(isReplaced);
}

// The handler thread is done with its push: an application has it, or nobody ever will.
void PushTracer::endHandled() {
    m_isWriting = false;
    if (!m_handled) {
        return;
    }
    PushTrace push = *std::exchange(m_handled, std::nullopt);
    if (push.wasDelivered && !push.nobodyWaits && push.trouble.empty()) {
        m_delivered.push_back(push);
        if (m_delivered.size() > kMostDelivered) {
            endDelivered(m_delivered.begin());
        }
        return;
    }
    if (!push.wasDelivered && (push.trouble.empty() || push.trouble == kIdInUse)) {
        push.trouble = "closed undelivered: the session has no channel";
    }
    onEnd(push);
}

void PushTracer::noteDelivered() {
    PushTrace& push = *m_handled;
    push.wasDelivered = true;
    push.delivered = m_now;
    push.sharesId =
        !push.id.empty() &&
        std::any_of(m_delivered.begin(), m_delivered.end(), [&push](const PushTrace& other) {
            return other.appId == push.appId && other.id == push.id;
        });
    onDelivery(push);
}

bool PushTracer::takeDelivery(std::string_view text) {
    if (!m_handled) {
        return false;
    }
    if (startsWith(text, "sendMessage: Callback [pushNotification]")) {
        m_isWriting = true;
        m_handled->hasNoReader =
            m_goneClients.has(between(text, "for client id[", "] err[").value_or(""));
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
            noteDelivered();
        }
        endHandled();
        return true;
    }
    return false;
}

// Without an application the oldest push of that id. Ids that the agent made up stand nowhere in
// the log; they begin with the application's.
std::list<PushTrace>::iterator PushTracer::findDelivered(const std::string& appId,
                                                         const std::string& id) {
    const auto isOfApp = [&appId](const PushTrace& push) {
        return appId.empty() || push.appId == appId;
    };
    const auto named =
        std::find_if(m_delivered.begin(), m_delivered.end(),
                     [&](const PushTrace& push) { return push.id == id && isOfApp(push); });
    if (named != m_delivered.end()) {
        return named;
    }
    return std::find_if(m_delivered.begin(), m_delivered.end(), [&](const PushTrace& push) {
        return push.id.empty() && startsWith(id, push.appId) && isOfApp(push);
    });
}

// The main thread: an application's answer. Whose it is tells the next line; all is done when the
// thread gets back to its loop.
bool PushTracer::takeAnswer(std::string_view text) {
    const bool isAccept = startsWith(text, "acceptPush called and Push id [");
    if (isAccept || startsWith(text, "rejectPush called and Push id [")) {
        endAnswered();
        const std::string id = betweenLast(text, "Push id [", "].").value_or("");
        // The answer can come before the handler thread's own last line.
        if (findDelivered("", id) == m_delivered.end() && m_handled && m_isWriting) {
            noteDelivered();
            endHandled();
        }
        m_answering = Answer{id, isAccept, m_now};
        return true;
    }
    if (m_answering && startsWith(text, "providerAppID is ")) {
        const std::string_view name = text.substr(std::string_view("providerAppID is ").size());
        matchAnswer(std::string(name.substr(0, name.find_last_not_of(" \r\n") + 1)));
        return true;
    }
    if (startsWith(text, "quilAgentLoop: All the valid ports are")) {
        endAnswered();
        return true;
    }
    return false;
}

// Marks the pushes that the answer may be meant for: all of that id, of which one connection at the
// most stands.
void PushTracer::matchAnswer(const std::string& appId) {
    if (m_answering->isMatched) {
        return;
    }
    const auto first = findDelivered(appId, m_answering->id);
    if (first == m_delivered.end()) {
        return;
    }
    m_answering->isMatched = true;
    first->id = m_answering->id;
    const auto isMeant = [first](const PushTrace& push) {
        return push.id == first->id && push.appId == first->appId;
    };
    const bool areMore = std::count_if(m_delivered.begin(), m_delivered.end(), isMeant) > 1;
    for (PushTrace& push : m_delivered) {
        if (isMeant(push)) {
            push.answer = m_answering->isAccept ? "accepted" : "rejected";
            push.answered = m_answering->time;
            push.sharesAnswer = areMore;
        }
    }
}

void PushTracer::endAnswered() {
    if (!m_answering) {
        return;
    }
    matchAnswer("");
    for (auto push = m_delivered.begin(); push != m_delivered.end();) {
        const auto each = push++;
        if (!each->answer.empty()) {
            each->closed = m_now;
            endDelivered(each);
        }
    }
    m_answering.reset();
}

void PushTracer::endDelivered(std::list<PushTrace>::iterator push) {
    onEnd(*push);
    m_delivered.erase(push);
}

// Lines that tell why something went wrong.
void PushTracer::takeTrouble(std::string_view text) {
    if (m_handled && startsWith(text, "pushNotification: id[")) {
        m_handled->id = between(text, "id[", "] error code").value_or("");
        const std::string code = between(text, "error code[", "]").value_or("?");
        m_handled->trouble = "refused with code " + code + ": " +
                             std::string(quilclient::explain(std::atoi(code.c_str())).meaning);
    }
    if (m_receiving && startsWith(text, "serverIfProcessData: ")) {
        m_receiving->trouble = text.substr(std::string_view("serverIfProcessData: ").size());
    }
    if (m_answering && startsWith(text, "Failed to find pushId[")) {
        matchAnswer("");
        for (PushTrace& push : m_delivered) {
            if (!push.answer.empty()) {
                push.trouble = "nobody waited for the answer";
            }
        }
    }
}

std::string answerOf(const PushTrace& push) {
    return push.answer +
           (push.sharesAnswer ? ": this one or another of its id, a log with -v tells which" : "");
}

const char* noteOfDelivery(const PushTrace& push) {
    if (push.hasNoReader) {
        return " to nobody: the application was not connected";
    }
    return push.sharesId && push.trouble.empty()
               ? "; its id was in use: unless the earlier sender had hung up, it was closed (a log "
                 "with -v tells)"
               : "";
}
