// Hands the lines of a log to the tracers, each with its time.

#pragma once

#include <optional>
#include <string_view>

#include "tools/quilctl/log_line.hpp"
#include "tools/quilctl/log_tracer.hpp"

class LogFeed {
  public:
    // In a log that is read as it is written (`isLive`), a line without a time in front has the
    // time of its arrival. The tracer must outlive this.
    LogFeed(LogTracer& tracer, bool isLive) : m_tracer(tracer), m_isLive(isLive) {}

    // One line without its line feed. False for one that is none of the agent's.
    bool take(std::string_view line);

    // The time of the last line, where it has one.
    const std::optional<double>& now() const { return m_now; }

  private:
    LogTracer& m_tracer;
    bool m_isLive;
    RunningTime m_clock;
    std::optional<double> m_now;
};
