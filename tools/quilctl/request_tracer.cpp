#include "tools/quilctl/request_tracer.hpp"

#include <cstdlib>

#include "quilclient/result.hpp"
#include "tools/quilctl/log_line.hpp"

namespace {

constexpr int kTypeDestroyed = 3;

bool isRequest(std::string_view name) {
    return name == "createSession" || name == "createChannel" || name == "registerToLaunch" ||
           name == "unregisterFromLaunch" || name == "acceptPush" || name == "rejectPush";
}

std::string troubleOf(int code) {
    return code == 0 ? ""
                     : std::to_string(code) + ", " + std::string(quilclient::explain(code).meaning);
}

// The rest of a line behind `start`, without the line feed that some have.
std::string restBehind(std::string_view text, std::string_view start) {
    const std::string_view rest = text.substr(start.size());
    return std::string(rest.substr(0, rest.find_last_not_of(" \r\n") + 1));
}

}  // namespace

void RequestTracer::take(std::string_view text, std::optional<double> time) {
    m_now = time;
    takeBegin(text) || takeRefusal(text) || takeQueued(text) || takeDirectReply(text);
}

bool RequestTracer::takeBegin(std::string_view text) {
    if (startsWith(text, "clientIf_getMsg - Reading incoming IPC request.")) {
        m_isReading = true;
        m_name.clear();
        m_appId.clear();
        m_pushId.clear();
        m_isRefused = false;
        return true;
    }
    if (startsWith(text, "quilAgentLoop: All the valid ports are")) {
        m_isReading = false;
        return true;
    }
    const std::size_t blank = text.find(' ');
    const std::string_view verb = text.substr(0, blank);
    const std::string_view rest = text.substr(verb.size());
    if ((startsWith(rest, " Called") || startsWith(rest, " called")) && isRequest(verb)) {
        m_name = verb;
        m_pushId = betweenLast(rest, "Push id [", "].").value_or("");
        return true;
    }
    if (m_isReading && m_appId.empty() && startsWith(text, "providerAppID is ")) {
        m_appId = restBehind(text, "providerAppID is ");
        return true;
    }
    return false;
}

// What is not carried out at all.
bool RequestTracer::takeRefusal(std::string_view text) {
    if (startsWith(text, "User [") && contains(text, "] may not act for app id [")) {
        const std::string user = between(text, "User [", "] may not").value_or("");
        end(between(text, "for app id [", "]: [").value_or(""),
            betweenLast(text, "]: [", "] refused").value_or(""), "user " + user + " may not");
        m_isRefused = true;
    } else if (startsWith(text, "provider id not found!")) {
        end("", "request", "it has no providerApplicationId");
        m_isRefused = true;
    } else if (startsWith(text, "Unexpected client message received: ")) {
        end("", restBehind(text, "Unexpected client message received: "), "unknown request");
        m_isRefused = true;
    } else if (startsWith(text, "Failed to find pushId[") && m_isReading && !m_pushId.empty()) {
        end(m_appId, m_name, "nobody waits for the answer to push '" + m_pushId + "'");
    } else if (startsWith(text, "quilAccept: session for app id [")) {
        end(between(text, "app id [", "] not found").value_or(""), m_name, "no session");
    } else {
        return false;
    }
    return true;
}

// Replies that go through the queue. That of a channel comes this way only when the agent itself
// refused it: its own has no code.
bool RequestTracer::takeQueued(std::string_view text) {
    if (!startsWith(text, "addMessage: msg type[")) {
        return false;
    }
    const int type = std::atoi(between(text, "type[", "]").value_or("0").c_str());
    const int code = std::atoi(between(text, "errorCode[", "]").value_or("0").c_str());
    const std::string appId = between(text, "provider id[", "] errorCode").value_or("");
    if (m_isReading && m_isRefused) {
        return true;
    }
    if (type == 1) {
        end(appId, "createSession", troubleOf(code));
    } else if (type == 2 && code != 0) {
        end(appId, "createChannel", troubleOf(code));
    } else if (type == 4) {
        end(appId, m_name.empty() ? "launch string" : m_name, troubleOf(code));
    }
    return true;
}

// "destroyChannel" is refused past the queue, and only the application's look-up names it. The
// same reply at the end of a channel comes from the handler thread.
bool RequestTracer::takeDirectReply(std::string_view text) {
    if (typeOfTaken(text) == kTypeDestroyed) {
        ++m_destroyedTaken;
        return true;
    }
    const bool isDestroyed =
        startsWith(text, "sendMessage: Callback [onDestroyChannelComplete] for client id[");
    if (!isDestroyed && !startsWith(text, "sendMessage: Callback [onSimChange] for client id[")) {
        return false;
    }
    if (m_destroyedTaken > 0) {
        --m_destroyedTaken;
    } else if (m_isReading && !m_isRefused && isDestroyed) {
        const int code = std::atoi(betweenLast(text, "err[", "] has data").value_or("0").c_str());
        end(m_appId, "destroyChannel", troubleOf(code));
    }
    return true;
}

void RequestTracer::end(const std::string& appId, const std::string& name,
                        const std::string& trouble) {
    onEnd({m_now, appId, name, trouble});
}
