#include "tools/quilctl/trace.hpp"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include "tools/common/terminal.hpp"
#include "tools/quilctl/log_feed.hpp"
#include "tools/quilctl/log_tracer.hpp"
#include "tools/quilctl/output.hpp"

namespace {

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

std::string deliveredBut(const PushTrace& push) {
    return push.hasNoReader ? std::string("delivered") + noteOfDelivery(push) + "; "
                            : "delivered, but ";
}

std::string outcomeOf(const PushTrace& push) {
    if (!push.trouble.empty()) {
        return (push.wasDelivered ? deliveredBut(push) : "") + push.trouble;
    }
    if (!push.answer.empty()) {
        return answerOf(push);
    }
    if (!push.wasDelivered) {
        return push.wasTaken    ? "being delivered"
               : push.wasQueued ? "still queued"
                                : "still being read";
    }
    if (push.hasNoReader) {
        return std::string("delivered") + noteOfDelivery(push);
    }
    return std::string(push.nobodyWaits ? "delivered, nobody waits" : "delivered, no answer") +
           noteOfDelivery(push);
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
        const bool isGood = push.trouble.empty() && !push.hasNoReader && push.answer != "rejected";
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
            showJson({{"kind", kindOf(channel)},
                      {"app", channel.appId},
                      {"outcome", outcomeOf(channel)}},
                     channel.requested, stagesOf(channel));
        } else {
            showLine(channel.requested, visible(channel.appId), stagesOf(channel),
                     outcomeOf(channel), channel.isGood());
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

// Number of lines of the agent's.
std::size_t readLog(std::istream& input, bool isLive, LogTracer& tracer) {
    LogFeed feed(tracer, isLive);
    std::size_t count = 0;
    for (std::string line; std::getline(input, line);) {
        count += feed.take(line) ? 1 : 0;
    }
    return count;
}

ExitStatus fail(const std::string& words, const std::string& next, ExitStatus status) {
    printTrouble(words, next);
    return status;
}

}  // namespace

ExitStatus traceLog(const std::string& file, double slowSeconds, bool json) {
    TraceView view(slowSeconds, json);
    LogTracer tracer;
    tracer.pushes.onEnd = [&view](const PushTrace& push) { view.show(push); };
    tracer.channels.onEnd = [&view](const ChannelTrace& channel) { view.show(channel); };
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
