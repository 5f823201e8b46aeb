#include "tools/quilctl/log_feed.hpp"

#include <chrono>
#include <ctime>

namespace {

constexpr double kDay = 86400;

LogTime timeOfArrival() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    const double fraction =
        std::chrono::duration<double>(now - std::chrono::system_clock::from_time_t(seconds))
            .count();
    return {parts.tm_hour * 3600 + parts.tm_min * 60 + parts.tm_sec + fraction, kDay};
}

}  // namespace

bool LogFeed::take(std::string_view line) {
    const std::optional<LogLine> parsed = parseLogLine(line);
    if (!parsed) {
        return false;
    }
    std::optional<LogTime> time = parsed->time;
    if (!time && m_isLive) {
        time = timeOfArrival();
    }
    m_now = time ? std::optional<double>(m_clock.next(*time)) : std::nullopt;
    m_tracer.take(parsed->text, m_now);
    return true;
}
