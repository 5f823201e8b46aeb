#include "tools/quilctl/log_tracer.hpp"

#include "tools/quilctl/log_line.hpp"

void LogTracer::take(std::string_view text, std::optional<double> time) {
    // An agent that starts knows nothing of what the one before had under way.
    if (startsWith(text, "Initialize Configuration Manager - done")) {
        finish();
    }
    pushes.take(text, time);
    channels.take(text, time);
    requests.take(text, time);
}

void LogTracer::finish() {
    pushes.finish();
    channels.finish();
}
