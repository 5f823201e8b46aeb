// One line for each event that the tracers tell of.

#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "tools/common/terminal.hpp"
#include "tools/quilctl/log_feed.hpp"
#include "tools/quilctl/log_tracer.hpp"

class MonitorView {
  public:
    // Shows events of `appId` alone, or with "" of all. `tracer` and `feed` must outlive this.
    MonitorView(LogTracer& tracer, const LogFeed& feed, std::string appId, bool json);

  private:
    enum class Kind { News, Good, Bad };

    void showArrival(const PushTrace& push);
    void showDelivery(const PushTrace& push);
    void showEnd(const PushTrace& push);
    void showRequest(const ChannelTrace& channel);
    void showEnd(const ChannelTrace& channel);
    void showEnd(const RequestTrace& request);
    void showPush(const PushTrace& push, const char* event, const std::string& words, Kind kind);
    void show(nlohmann::ordered_json object, const std::string& words, Kind kind);

    const LogFeed& m_feed;
    Style m_style;
    std::string m_appId;
    bool m_json;
};
