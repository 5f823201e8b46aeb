#include "tools/quilctl/monitor.hpp"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "tools/quilctl/live_log.hpp"
#include "tools/quilctl/monitor_view.hpp"
#include "tools/quilctl/output.hpp"

namespace {

// How often a file is looked at that cannot be waited on.
constexpr int kLookMilliseconds = 200;
// A line of the agent's has 4 KiB at the most, and what stands in front of it.
constexpr std::size_t kMostLineBytes = 65536;

// Each line is written out at once, so nothing is lost whenever this comes.
extern "C" void endNow(int /*signal*/) {
    _exit(kDone);
}

// Null, and told, when it cannot be read.
std::unique_ptr<LiveLog> openLog(const MonitorOptions& options) {
    if (options.log == "-") {
        return std::make_unique<PipedLog>();
    }
    if (options.log.empty()) {
        auto journal = std::make_unique<JournalLog>();
        if (journal->start(options.fromStart)) {
            return journal;
        }
        printTrouble("monitor: cannot start journalctl",
                     "name a file that holds what quilagent writes");
        return nullptr;
    }
    auto file = std::make_unique<FollowedFile>(options.log);
    const int error = file->open(options.fromStart);
    if (error == 0) {
        return file;
    }
    printTrouble("monitor: cannot read " + options.log + ": " + std::strerror(error),
                 "name a file that holds what quilagent writes");
    return nullptr;
}

// Hands whole lines to the feed; the rest of the last one stays in `bytes`. Number of lines of the
// agent's.
std::size_t feedLines(LogFeed& feed, std::string& bytes) {
    std::size_t count = 0;
    std::size_t start = 0;
    for (std::size_t end = bytes.find('\n'); end != std::string::npos;
         end = bytes.find('\n', start)) {
        count += feed.take(std::string_view(bytes).substr(start, end - start)) ? 1 : 0;
        start = end + 1;
    }
    bytes.erase(0, start);
    if (bytes.size() > kMostLineBytes) {
        bytes.clear();  // none of the agent's
    }
    return count;
}

// Waits for more. False when nobody reads what is shown.
bool waitForMore(int descriptor, int milliseconds) {
    pollfd entries[2] = {{descriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    poll(entries, 2, milliseconds);
    return (entries[1].revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
}

ExitStatus endOfOutput() {
    if (!waitForMore(-1, 0)) {
        return kDone;
    }
    printTrouble("monitor: cannot write what is to be shown", "look where its output goes");
    return kRefused;
}

ExitStatus endOfLog(const MonitorOptions& options, LiveLog::State state, std::size_t count) {
    if (options.log.empty()) {
        printTrouble("monitor: the journal cannot be read any more",
                     "see what journalctl -u quilagent says, or name a log file");
        return kNotThere;
    }
    if (state == LiveLog::State::Failed) {
        printTrouble("monitor: cannot read " + options.log + " any more",
                     "name a file that holds what quilagent writes");
        return kNotThere;
    }
    if (count == 0) {
        printTrouble("monitor: no line of the agent's log came", "give it quilagent's output");
        return kRefused;
    }
    return kDone;
}

}  // namespace

ExitStatus monitorLog(const MonitorOptions& options) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, endNow);
    signal(SIGTERM, endNow);
    const std::unique_ptr<LiveLog> log = openLog(options);
    if (log == nullptr) {
        return kNotThere;
    }
    LogTracer tracer;
    LogFeed feed(tracer, true);
    const MonitorView view(tracer, feed, options.appId, options.json);
    std::string bytes;
    std::size_t count = 0;
    const int interval = log->descriptor() < 0 ? kLookMilliseconds : -1;
    while (waitForMore(log->descriptor(), interval)) {
        const LiveLog::State state = log->read(bytes);
        count += feedLines(feed, bytes);
        if (std::ferror(stdout) != 0) {
            return endOfOutput();
        }
        if (state != LiveLog::State::Going) {
            return endOfLog(options, state, count);
        }
    }
    return kDone;
}
