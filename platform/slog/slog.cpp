#include "platform/slog/slog.hpp"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr std::size_t kLineBytes = 4352;

constexpr int kPriorities[] = {LOG_EMERG,  LOG_CRIT, LOG_ERR,   LOG_WARNING,
                               LOG_NOTICE, LOG_INFO, LOG_DEBUG, LOG_DEBUG};

void makeSafe(char* text, std::size_t length) {
    while (length > 0 && text[length - 1] == '\n') {
        text[--length] = '\0';
    }
    const auto isControl = [](char byte) {
        const auto code = static_cast<unsigned char>(byte);
        return code < 0x20 || code == 0x7F;
    };
    std::replace_if(text, text + length, isControl, ' ');
}

// Opens the log once for the process; the connection itself is made, and made again, by each line.
void openOnce() {
    static const bool isOpen = [] {
        openlog("quilagent", LOG_PID, LOG_DAEMON);
        return true;
    }();
    static_cast<void>(isOpen);
}

}  // namespace

void slogf(std::uint32_t /*code*/, int severity, const char* format, ...) {
    // Not on the stack, of which syslog(3) takes enough by itself.
    static thread_local char line[kLineBytes];
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (wanted < 0) {
        return;
    }
    makeSafe(line, std::min(static_cast<std::size_t>(wanted), sizeof line - 1));
    openOnce();
    syslog(kPriorities[std::clamp(severity, 0, 7)], "%s", line);
}
