// Senders know the acknowledgement by exactly these bytes; nothing in them may be put right.

#include "agent/connections/acknowledgement.hpp"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "agent/connections/connection.hpp"
#include "agent/support/log.hpp"

namespace {

constexpr std::size_t kAcknowledgementBytes = 1024;

// LF before CR, status 200 beside 400, no blank behind "Date:" and no empty line at the end:
// senders know the acknowledgement by exactly these bytes.
constexpr const char* kAcknowledgementHead =
    "HTTP/1.0 200 OK\n\r"
    "X-Wap-Push-Status:400\n\r"
    "Date:";
constexpr const char* kAcknowledgementEnd = "\n\r";

// The local time, with its line feed. Asking for the time zone costs a system call: once a second
// is often enough to follow a change of it.
const char* localTime() {
    static thread_local char text[32] = {};
    static thread_local std::time_t stamped = -1;
    const std::time_t now = std::time(nullptr);
    if (now != stamped) {
        tzset();  // ctime_r alone would stay with the time zone of the first call
        ctime_r(&now, text);
        stamped = now;
    }
    return text;
}

}  // namespace

void sendAcknowledgement(int socket) {
    char buffer[kAcknowledgementBytes] = {};
    std::snprintf(buffer, sizeof buffer, "%s%s%s", kAcknowledgementHead, localTime(),
                  kAcknowledgementEnd);
    const std::size_t length = std::strlen(buffer);
    const int sent = serverIfSend(socket, buffer, static_cast<int>(length));
    QUIL_LOG(LOG_LEVEL_DEBUG, "Sent [%s] actual len[%d] len[%d]", buffer, sent,
             static_cast<int>(length));
}
