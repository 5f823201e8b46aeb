#include "tools/quilctl/monitor_view.hpp"

#include <cstdio>
#include <utility>

#include "tools/quilctl/output.hpp"

MonitorView::MonitorView(LogTracer& tracer, const LogFeed& feed, std::string appId, bool json)
    : m_feed(feed), m_style(stdout), m_appId(std::move(appId)), m_json(json) {
    tracer.pushes.onArrival = [this](const PushTrace& push) { showArrival(push); };
    tracer.pushes.onDelivery = [this](const PushTrace& push) { showDelivery(push); };
    tracer.pushes.onEnd = [this](const PushTrace& push) { showEnd(push); };
    tracer.channels.onRequest = [this](const ChannelTrace& channel) { showRequest(channel); };
    tracer.channels.onEnd = [this](const ChannelTrace& channel) { showEnd(channel); };
    tracer.requests.onEnd = [this](const RequestTrace& request) { showEnd(request); };
}

void MonitorView::showArrival(const PushTrace& push) {
    showPush(push, "arrived", "arrived, " + std::to_string(push.bytes) + " bytes", Kind::News);
}

void MonitorView::showDelivery(const PushTrace& push) {
    const std::string words = std::string("delivered") + noteOfDelivery(push) +
                              (push.nobodyWaits ? ", nobody waits" : "");
    showPush(push, "delivered", words, push.hasNoReader ? Kind::Bad : Kind::Good);
}

// Of a push that was delivered, and for which nothing follows, all is said.
void MonitorView::showEnd(const PushTrace& push) {
    if (!push.trouble.empty()) {
        showPush(push, "failed", push.trouble, Kind::Bad);
    } else if (!push.answer.empty()) {
        showPush(push, push.answer.c_str(), answerOf(push),
                 push.answer == "accepted" ? Kind::Good : Kind::Bad);
    }
}

void MonitorView::showRequest(const ChannelTrace& channel) {
    show({{"kind", kindOf(channel)}, {"app", channel.appId}, {"event", "asked"}},
         std::string(kindOf(channel)) + " asked for", Kind::News);
}

void MonitorView::showEnd(const ChannelTrace& channel) {
    if (!channel.hasEnded && !channel.isRestored) {
        return;  // the log ends before it
    }
    const bool isGood = channel.isGood();
    show({{"kind", kindOf(channel)},
          {"app", channel.appId},
          {"event", isGood ? "done" : "failed"},
          {"outcome", outcomeOf(channel)}},
         outcomeOf(channel), isGood ? Kind::Good : Kind::Bad);
}

void MonitorView::showEnd(const RequestTrace& request) {
    const bool isGood = request.trouble.empty();
    show({{"kind", request.name},
          {"app", request.appId},
          {"event", isGood ? "done" : "refused"},
          {"outcome", isGood ? "done" : request.trouble}},
         request.name + (isGood ? " done" : " refused: " + request.trouble),
         isGood ? Kind::Good : Kind::Bad);
}

void MonitorView::showPush(const PushTrace& push, const char* event, const std::string& words,
                           Kind kind) {
    nlohmann::ordered_json object = {
        {"kind", "push"}, {"app", push.appId}, {"event", event}, {"id", push.id}};
    if (push.bytes >= 0) {
        object["bytes"] = push.bytes;
    }
    object["outcome"] = words;
    show(object, (push.id.empty() ? "push " : "push '" + push.id + "' ") + words, kind);
}

void MonitorView::show(nlohmann::ordered_json object, const std::string& words, Kind kind) {
    const std::string appId = object["app"];
    if (!m_appId.empty() && appId != m_appId) {
        return;
    }
    if (m_json) {
        object["time"] = clockText(m_feed.now());
        printJson(object);
        return;
    }
    const std::string shown = visible(words);
    std::printf("%s  %s  %s\n", m_style.faint(clockText(m_feed.now())).c_str(),
                m_style.strong(appId.empty() ? "-" : visible(appId)).c_str(),
                (kind == Kind::Good  ? m_style.good(shown)
                 : kind == Kind::Bad ? m_style.bad(shown)
                                     : shown)
                    .c_str());
    std::fflush(stdout);
}
