#include "tools/quilctl/channel_tracer.hpp"

#include <cstdlib>

#include "quilclient/result.hpp"
#include "tools/quilctl/curl_codes.hpp"
#include "tools/quilctl/log_line.hpp"

namespace {

constexpr int kTypeRegister = 7;
constexpr int kTypeDeregister = 8;
constexpr std::string_view kTransportFailure = "HTTP Transport failure: rc [";
constexpr std::string_view kInvalidPort = "OVRA registration failed. Invalid port received";
constexpr const char* kPortHeader = "vex-device-ovra-port";
constexpr const char* kPinObject = "/pps/system/nvram/deviceinfo";

// What was on the way between the agent and a push server, libcurl's number in its own words.
std::string transportTrouble(std::string_view text) {
    const int code = std::atoi(between(text, "rc [", "]").value_or("0").c_str());
    const std::string status = between(text, "HTTP Status[", "]").value_or("?");
    const std::string cause = code == 0 ? "status " + status
                                        : std::string(curlWords(code)) + " (libcurl's number " +
                                              std::to_string(code) + ")";
    return "HTTP Transport failure: " + cause + ", url[" +
           betweenLast(text, "url[", "]").value_or("") + "]";
}

std::string codeTrouble(int code) {
    return std::to_string(code) + ", " + std::string(quilclient::explain(code).meaning);
}

// Without its code the log is one without -v, which tells nothing of the header.
std::string portTrouble(const ChannelTrace& channel) {
    const std::string trouble(kInvalidPort);
    if (!channel.code) {
        return trouble;
    }
    return trouble + ": the header " + kPortHeader +
           (channel.portHeader ? " is '" + *channel.portHeader + "'" : " is missing");
}

// Whether it may have come without a port, and nothing has told yet.
bool mayLackPort(const ChannelTrace& channel) {
    return channel.trouble.empty() && channel.portBefore.value_or(1) < 1 && !channel.isPortKnown;
}

// Of a creation that ended without a line that says why: with the code of the server's first
// answer, or, when it was created, with a code that brings no port.
std::string quietTrouble(const ChannelTrace& channel) {
    if (channel.isRegistered) {
        return !channel.hasNoPort
                   ? ""
                   : "the push server gave no port" +
                         (channel.code ? " (its code was " + std::to_string(*channel.code) + ")"
                                       : "");
    }
    if (!channel.portBefore || channel.isTroubleOpen) {
        return "";
    }
    return channel.code ? codeTrouble(*channel.code)
                        : "the push server's first answer ended it; a log with -v tells its code";
}

}  // namespace

void ChannelTracer::take(std::string_view text, std::optional<double> time) {
    m_now = time;
    takeRequest(text) || takeQueue(text) || takeOpening(text) || takeAnswer(text) ||
        takeRegistered(text) || takeEnd(text);
    takePorts(text);
    takePin(text);
    takeTrouble(text);
}

void ChannelTracer::finish() {
    for (; !m_created.empty(); m_created.pop_front()) {
        end(m_created.front());
    }
    m_listedPorts.reset();
    for (const ChannelTrace& channel : m_channels) {
        onEnd(channel);
    }
    m_channels.clear();
    m_openingTrouble.clear();
}

bool ChannelTracer::takeRequest(std::string_view text) {
    const bool isDestroying = startsWith(text, "addMessage: msg type[8]");
    if (!isDestroying && !startsWith(text, "addMessage: msg type[7]")) {
        return false;
    }
    ChannelTrace channel;
    channel.appId = between(text, "provider id[", "] errorCode").value_or("");
    channel.isDestroying = isDestroying;
    channel.requested = m_now;
    m_channels.push_back(channel);
    onRequest(m_channels.back());
    return true;
}

// The handler thread took a message of some type; the next line says whose.
bool ChannelTracer::takeQueue(std::string_view text) {
    if (const std::optional<int> type = typeOfTaken(text)) {
        m_handledType = *type;
        return true;
    }
    const bool isOne = m_handledType == kTypeRegister || m_handledType == kTypeDeregister;
    if (!isOne || !startsWith(text, "app id[")) {
        return false;
    }
    if (ChannelTrace* channel = find(between(text, "app id[", "] clientId").value_or(""),
                                     m_handledType == kTypeDeregister, false)) {
        channel->taken = m_now;
        channel->wasTaken = true;
    }
    return true;
}

// A port that cannot be listened on: each step tells its reason, and all end in the same line.
// That the channel comes about all the same, without anybody listening, tells the line behind it.
bool ChannelTracer::takeOpening(std::string_view text) {
    if (startsWith(text, "Failed to bind ") || startsWith(text, "listen socket error") ||
        (startsWith(text, "Failed to create ") && contains(text, " server soc"))) {
        m_openingTrouble = text;
        return true;
    }
    if (startsWith(text, "Error opening port ")) {
        m_openingTrouble = m_openingTrouble.empty() ? std::string(text)
                                                    : std::string(text) + ": " + m_openingTrouble;
        return true;
    }
    if (startsWith(text, "QuilSessionManager::addSavedSession -> added key [")) {
        if (!m_openingTrouble.empty()) {
            ChannelTrace channel;
            channel.appId = betweenLast(text, "key [", "]").value_or("");
            channel.isRestored = true;
            channel.requested = m_now;
            channel.trouble = m_openingTrouble;
            m_openingTrouble.clear();
            onEnd(channel);
        }
        return true;
    }
    return false;
}

// The exchange with the push server, of which the lines that tell most name no application.
bool ChannelTracer::takeAnswer(std::string_view text) {
    if (startsWith(text, "processServerRegister: appid [")) {
        const std::string appId = between(text, "appid [", "] port [").value_or("");
        if (ChannelTrace* channel = find(appId, false, true)) {
            channel->portBefore =
                std::atoi(betweenLast(text, "] port [", "]").value_or("0").c_str());
        }
        return true;
    }
    if (startsWith(text, "processServerRegister: app id [")) {
        const std::string appId = between(text, "app id [", "] port [").value_or("");
        if (ChannelTrace* channel = find(appId, false, true)) {
            channel->hasNewPort = true;
        }
        return true;
    }
    if (startsWith(text, "addCreateChannelCompletedMessage: provider app id [")) {
        if (ChannelTrace* channel =
                find(betweenLast(text, "app id [", "]").value_or(""), false, true)) {
            channel->hasNoPort = !channel->hasNewPort;
            channel->isPortKnown = true;
        }
        return true;
    }
    ChannelTrace* channel = findOnlyTaken();
    if (channel != nullptr && startsWith(text, "getReturnCode: Response Code [")) {
        channel->code = std::atoi(between(text, "Code [", "]").value_or("0").c_str());
    } else if (channel != nullptr && startsWith(text, "Port response ")) {
        const std::string_view value = text.substr(std::string_view("Port response ").size());
        channel->portHeader = value.substr(0, value.find_last_not_of(" \r\n") + 1);
    } else {
        return false;
    }
    return true;
}

// Without -v a channel's port is not told, but all that the main thread watches afterwards are:
// when there are none, this one has none.
void ChannelTracer::takePorts(std::string_view text) {
    if (startsWith(text, "quilAgentLoop: All the valid ports are")) {
        m_listedPorts = 0;
    } else if (m_listedPorts && startsWith(text, "quilAgentLoop 2: port[")) {
        ++*m_listedPorts;
    } else if (m_listedPorts && startsWith(text, "quilAgentLoop: Waiting")) {
        const bool hasNone = *m_listedPorts == 0;
        for (std::list<ChannelTrace>* channels : {&m_channels, &m_created}) {
            for (ChannelTrace& channel : *channels) {
                if (channel.isRegistered && mayLackPort(channel)) {
                    channel.hasNoPort = hasNone;
                    channel.isPortKnown = true;
                }
            }
        }
        for (; !m_created.empty(); m_created.pop_front()) {
            end(m_created.front());
        }
        m_listedPorts.reset();
    }
}

bool ChannelTracer::takeRegistered(std::string_view text) {
    if (!contains(text, "next state[Register]")) {
        return false;
    }
    if (ChannelTrace* channel =
            find(between(text, "app id [", "] current").value_or(""), false, true)) {
        channel->isRegistered = true;
        m_listedPorts.reset();  // a list that began before may hold its port or not
        if (!m_openingTrouble.empty()) {
            channel->trouble = m_openingTrouble;
        }
        m_openingTrouble.clear();
    }
    return true;
}

bool ChannelTracer::takeEnd(std::string_view text) {
    const bool isDestroyed = startsWith(text, "addMessage: msg type[3]");
    if (!isDestroyed && !startsWith(text, "addMessage: msg type[2]")) {
        return false;
    }
    ChannelTrace* channel =
        find(between(text, "provider id[", "] errorCode").value_or(""), isDestroyed, true);
    if (channel == nullptr) {
        return true;
    }
    if (isDestroyed) {
        const int code = std::atoi(between(text, "errorCode[", "]").value_or("0").c_str());
        channel->isRegistered = code == 0;
        if (code != 0 && channel->trouble.empty()) {
            channel->trouble = codeTrouble(code);
        }
    }
    channel->ended = m_now;
    channel->hasEnded = true;
    if (!isDestroyed && channel->isRegistered && mayLackPort(*channel)) {
        m_created.push_back(*channel);
    } else {
        end(*channel);
    }
    m_channels.remove_if([channel](const ChannelTrace& each) { return &each == channel; });
    return true;
}

void ChannelTracer::end(ChannelTrace channel) {
    if (channel.trouble.empty() && !channel.isDestroying) {
        channel.trouble = quietTrouble(channel);
    }
    onEnd(channel);
}

// The PIN is asked for behind the registration, unless it is known already. No PIN, no token: the
// application is told of a channel that could not be created.
void ChannelTracer::takePin(std::string_view text) {
    const std::string object = std::string("[") + kPinObject + "]";
    if (startsWith(text, "looking for [")) {
        m_lookedFor = between(text, "[", "]").value_or("");
    } else if (startsWith(text, "Open " + object + " errno[")) {
        noteNoPin(betweenLast(text, "error[", "]").value_or(""));
    } else if (startsWith(text, "Read " + object + " errno[") && m_lookedFor == "PIN") {
        noteNoPin("no attribute PIN");
    }
}

void ChannelTracer::noteNoPin(const std::string& reason) {
    for (ChannelTrace& channel : m_channels) {
        if (channel.isRegistered && !channel.isDestroying && !channel.hasNoPin) {
            channel.hasNoPin = true;
            channel.trouble = std::string("the device has no PIN (") + kPinObject + ": " + reason +
                              ")" + (channel.trouble.empty() ? "" : "; " + channel.trouble);
        }
    }
}

// Lines that tell why something went wrong; the first one counts.
void ChannelTracer::takeTrouble(std::string_view text) {
    const bool isTransport = startsWith(text, kTransportFailure);
    if (!isTransport && !startsWith(text, "OVRA server rejected") &&
        !startsWith(text, "OVRA registration failed") &&
        !contains(text, "OVRA server rejected registration")) {
        return;
    }
    ChannelTrace* channel = findInTrouble(text);
    if (channel == nullptr) {
        for (ChannelTrace& each : m_channels) {
            each.isTroubleOpen = true;
        }
    } else if (channel->trouble.empty()) {
        channel->trouble = isTransport                      ? transportTrouble(text)
                           : startsWith(text, kInvalidPort) ? portTrouble(*channel)
                                                            : std::string(text);
    }
}

ChannelTrace* ChannelTracer::find(const std::string& appId, bool isDestroying, bool wasTaken) {
    for (ChannelTrace& channel : m_channels) {
        if (channel.appId == appId && channel.isDestroying == isDestroying &&
            channel.wasTaken == wasTaken) {
            return &channel;
        }
    }
    return nullptr;
}

// The one that the line names, or the only one that is under way.
ChannelTrace* ChannelTracer::findInTrouble(std::string_view text) {
    for (ChannelTrace& channel : m_channels) {
        const std::string query = "serviceid=" + channel.appId;
        if (channel.wasTaken && (contains(text, query + "&") || contains(text, query + "]") ||
                                 contains(text, "[" + channel.appId + "]"))) {
            return &channel;
        }
    }
    return findOnlyTaken();
}

ChannelTrace* ChannelTracer::findOnlyTaken() {
    ChannelTrace* only = nullptr;
    for (ChannelTrace& channel : m_channels) {
        if (channel.wasTaken && only != nullptr) {
            return nullptr;
        }
        only = channel.wasTaken ? &channel : only;
    }
    return only;
}

const char* kindOf(const ChannelTrace& channel) {
    return channel.isRestored     ? "restoreChannel"
           : channel.isDestroying ? "destroyChannel"
                                  : "createChannel";
}

std::string outcomeOf(const ChannelTrace& channel) {
    if (channel.isRestored) {
        return "channel of before, but nobody listens: " + channel.trouble;
    }
    const std::string done = channel.isDestroying ? "destroyed" : "created";
    if (channel.isRegistered && !channel.hasNoPin && channel.hasNoPort &&
        channel.portBefore.value_or(-1) > 0) {
        return "channel " + done + ", but " + channel.trouble + ": port " +
               std::to_string(*channel.portBefore) + " of before is kept";
    }
    if (channel.isRegistered && !channel.hasNoPin) {
        return "channel " + done +
               (channel.trouble.empty() ? "" : ", but nobody listens: " + channel.trouble);
    }
    const std::string what = "channel not " + done;
    if (!channel.hasEnded) {
        return what + " yet";
    }
    return channel.trouble.empty() ? what : what + ": " + channel.trouble;
}
