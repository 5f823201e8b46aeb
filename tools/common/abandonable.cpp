#include "tools/common/abandonable.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>

namespace {

using Clock = std::chrono::steady_clock;

// Stands behind a text that is whole.
constexpr char kEndMark = '\n';

void writeAll(int descriptor, const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t count = write(descriptor, text.data() + at, text.size() - at);
        if (count < 0 && errno != EINTR) {
            return;
        }
        at += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}

// The child's pipe becomes its only descriptor beside standard streams that lead nowhere.
[[noreturn]] void runInChild(int pipeEnd, const std::function<std::string()>& work) {
    constexpr int kPipe = 3;
    std::signal(SIGPIPE, SIG_IGN);
    const int pipe = fcntl(pipeEnd, F_DUPFD, kPipe + 1);  // out of the streams' way
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int stream = 0; stream < kPipe; ++stream) {
        dup2(null, stream);
    }
    dup2(pipe, kPipe);
    close_range(kPipe + 1, UINT_MAX, 0);
    try {
        writeAll(kPipe, work() + kEndMark);
    } catch (...) {
        _exit(1);
    }
    _exit(0);
}

// True when the other end was closed in time.
bool readToEnd(int descriptor, Clock::time_point deadline, std::string* text) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{descriptor, POLLIN, 0};
        const int ready =
            poll(&entry, 1, static_cast<int>(std::clamp<long long>(left.count() + 1, 0, INT_MAX)));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        char part[65536];
        const ssize_t count = ready > 0 ? read(descriptor, part, sizeof part) : -1;
        if (count <= 0) {
            return count == 0;
        }
        text->append(part, static_cast<std::size_t>(count));
    }
}

}  // namespace

std::optional<std::string> runAbandonable(std::chrono::milliseconds limit,
                                          const std::function<std::string()>& work) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    const auto deadline = Clock::now() + limit;
    const pid_t child = fork();
    if (child == 0) {
        runInChild(ends[1], work);
    }
    close(ends[1]);
    std::string text;
    const bool isEnded = child > 0 && readToEnd(ends[0], deadline, &text);
    close(ends[0]);
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, WNOHANG);
    }
    if (!isEnded || text.empty() || text.back() != kEndMark) {
        return std::nullopt;
    }
    text.pop_back();
    return text;
}
