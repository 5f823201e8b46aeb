#include "tools/quilctl/trace.hpp"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include "tools/common/terminal.hpp"
#include "tools/quilctl/log_line.hpp"
#include "tools/quilctl/log_tracer.hpp"
#include "tools/quilctl/output.hpp"

namespace {

constexpr double kDay = 86400;

// A stage of the way and how long it took.
struct Stage {
    std::string name;
    std::optional<double> seconds;
    bool wasReached;
};

std::optional<double> difference(const std::optional<double>& from,
                                 const std::optional<double>& to) {
    return from && to ? std::optional<double>(*to - *from) : std::nullopt;
}

std::vector<Stage> stagesOf(const PushTrace& push) {
    return {{"read", difference(push.received, push.queued), push.wasQueued},
            {"queue", difference(push.queued, push.taken), push.wasTaken},
            {"deliver", difference(push.taken, push.delivered), push.wasDelivered},
            {"answer", difference(push.delivered, push.answered), !push.answer.empty()},
            {"close", difference(push.answered, push.closed), !push.answer.empty()}};
}

std::vector<Stage> stagesOf(const ChannelTrace& channel) {
    return {{"queue", difference(channel.requested, channel.taken), channel.taken.has_value()},
            {"server", difference(channel.taken, channel.ended), channel.hasEnded}};
}

std::string outcomeOf(const PushTrace& push) {
    if (!push.trouble.empty()) {
        return push.trouble;
    }
    if (!push.answer.empty()) {
        return push.answer;
    }
    if (!push.wasDelivered) {
        return push.wasTaken    ? "being delivered"
               : push.wasQueued ? "still queued"
                                : "still being read";
    }
    return push.nobodyWaits ? "delivered, nobody waits" : "delivered, no answer";
}

std::string outcomeOf(const ChannelTrace& channel) {
    const std::string done = channel.isDestroying ? "channel destroyed" : "channel created";
    if (channel.isGood) {
        return done;
    }
    const std::string what = channel.isDestroying ? "channel not destroyed" : "channel not created";
    if (!channel.hasEnded) {
        return what + " yet";
    }
    return channel.trouble.empty() ? what : what + ": " + channel.trouble;
}

std::string clockText(const std::optional<double>& time) {
    if (!time) {
        return "--:--:--.---";
    }
    const auto milliseconds = static_cast<long>(std::floor(std::fmod(*time, kDay) * 1000 + 0.5));
    char text[32];
    std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld.%03ld", milliseconds / 3600000 % 24,
                  milliseconds / 60000 % 60, milliseconds / 1000 % 60, milliseconds % 1000);
    return text;
}

std::string durationText(double seconds) {
    char text[32];
    if (seconds < 10) {
        std::snprintf(text, sizeof text, "%.0f ms", seconds * 1000);
    } else {
        std::snprintf(text, sizeof text, "%.1f s", seconds);
    }
    return text;
}

class TraceView {
  public:
    TraceView(double slowSeconds, bool json)
        : m_style(stdout), m_slowSeconds(slowSeconds), m_json(json) {}

    void show(const PushTrace& push) {
        const std::string id = push.id.empty() ? "push" : "push '" + visible(push.id) + "'";
        const std::string size = push.bytes < 0 ? "" : ", " + std::to_string(push.bytes) + " bytes";
        const bool isGood = push.trouble.empty() && push.answer != "rejected";
        if (m_json) {
            showJson({{"kind", "push"},
                      {"app", push.appId},
                      {"id", push.id},
                      {"bytes", push.bytes},
                      {"outcome", outcomeOf(push)}},
                     push.received, stagesOf(push));
        } else {
            showLine(push.received, visible(push.appId) + " " + id + size, stagesOf(push),
                     outcomeOf(push), isGood);
        }
    }

    void show(const ChannelTrace& channel) {
        if (m_json) {
            showJson({{"kind", channel.isDestroying ? "destroyChannel" : "createChannel"},
                      {"app", channel.appId},
                      {"outcome", outcomeOf(channel)}},
                     channel.requested, stagesOf(channel));
        } else {
            showLine(channel.requested, visible(channel.appId), stagesOf(channel),
                     outcomeOf(channel), channel.isGood);
        }
    }

  private:
    void showLine(const std::optional<double>& time, const std::string& subject,
                  const std::vector<Stage>& stages, const std::string& outcome, bool isGood) {
        const std::string shown = visible(outcome);
        std::string line = m_style.faint(clockText(time)) + "  " + m_style.strong(subject) + ": " +
                           (isGood ? m_style.good(shown) : m_style.bad(shown));
        std::string slow;
        std::string times;
        for (const Stage& stage : stages) {
            if (!stage.wasReached || !stage.seconds) {
                continue;
            }
            times += (times.empty() ? "" : ", ") + stage.name + " " + durationText(*stage.seconds);
            if (*stage.seconds > m_slowSeconds) {
                slow += (slow.empty() ? "SLOW: " : ", ") + stage.name;
            }
        }
        // One line each for scripts; a terminal's 80 columns hold no more than one half of it.
        line += times.empty() ? "" : (m_isTerminal ? "\n              " : "; ") + times;
        line += slow.empty() ? "" : "  " + m_style.warning(slow);
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }

    void showJson(nlohmann::ordered_json object, const std::optional<double>& time,
                  const std::vector<Stage>& stages) {
        object["time"] = clockText(time);
        for (const Stage& stage : stages) {
            if (stage.wasReached && stage.seconds) {
                object["seconds"][stage.name] = std::round(*stage.seconds * 1e6) / 1e6;
                if (*stage.seconds > m_slowSeconds) {
                    object["slow"].push_back(stage.name);
                }
            }
        }
        printJson(object);
    }

    Style m_style;
    bool m_isTerminal = isatty(STDOUT_FILENO) == 1;
    double m_slowSeconds;
    bool m_json;
};

double timeOfArrival() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    const double fraction =
        std::chrono::duration<double>(now - std::chrono::system_clock::from_time_t(seconds))
            .count();
    return parts.tm_hour * 3600 + parts.tm_min * 60 + parts.tm_sec + fraction;
}

// Times of the day, made to go on over midnight.
class RunningTime {
  public:
    double next(double dayTime) {
        if (m_last && dayTime + kDay / 2 < *m_last) {
            m_days += kDay;
        }
        m_last = dayTime;
        return m_days + dayTime;
    }

  private:
    std::optional<double> m_last;
    double m_days = 0;
};

// Number of lines of the agent's.
std::size_t readLog(std::istream& input, bool isLive, LogTracer& tracer) {
    RunningTime clock;
    std::size_t count = 0;
    for (std::string text; std::getline(input, text);) {
        const std::optional<LogLine> line = parseLogLine(text);
        if (!line) {
            continue;
        }
        ++count;
        std::optional<double> time = line->dayTime;
        if (!time && isLive) {
            time = timeOfArrival();
        }
        tracer.take(line->text, time ? std::optional<double>(clock.next(*time)) : std::nullopt);
    }
    return count;
}

ExitStatus fail(const std::string& words, const std::string& next, ExitStatus status) {
    const Style style(stderr);
    std::fprintf(stderr, "%s %s\n   next: %s\n", style.bad("quilctl:").c_str(),
                 visible(words).c_str(), next.c_str());
    return status;
}

}  // namespace

ExitStatus traceLog(const std::string& file, double slowSeconds, bool json) {
    TraceView view(slowSeconds, json);
    LogTracer tracer;
    tracer.onPush = [&view](const PushTrace& push) { view.show(push); };
    tracer.onChannel = [&view](const ChannelTrace& channel) { view.show(channel); };
    std::size_t count = 0;
    if (file == "-") {
        count = readLog(std::cin, true, tracer);
    } else {
        std::ifstream input(file);
        if (!input) {
            return fail("trace: cannot read " + file + ": " + std::strerror(errno),
                        "name a file that holds what quilagent wrote", kNotThere);
        }
        count = readLog(input, false, tracer);
    }
    tracer.finish();
    if (count == 0) {
        return fail("trace: no line of the agent's log in " + file,
                    "give it quilagent's output: journalctl -u quilagent | quilctl trace",
                    kRefused);
    }
    return kDone;
}
