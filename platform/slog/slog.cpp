// A line is built in memory of its thread and handed over in one send. The socket never waits: a
// line that cannot be handed over at once is counted instead, and the number is told when lines
// arrive again. Once lines have arrived, the socket stays open for good and is connected anew where
// necessary, so that a thread that sends never finds it closed and its number given to something
// else.

#include "platform/slog/slog.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

namespace {

constexpr std::size_t kTextBytes = 4352;  // 4351 and a NUL
constexpr std::size_t kHeadBytes = 64;    // "<PRI>Mmm dd hh:mm:ss quilagent[PID]: "
constexpr std::size_t kStampBytes = 32;   // of which 15 and a NUL are used in this millennium
constexpr std::int64_t kRetryMilliseconds = 1000;
// Numbers below are for descriptors that somebody selects on.
constexpr int kFirstHighDescriptor = 256;
constexpr int kFirstDescriptor = 3;  // behind the standard streams

constexpr int kPriorities[] = {LOG_EMERG,  LOG_CRIT, LOG_ERR,   LOG_WARNING,
                               LOG_NOTICE, LOG_INFO, LOG_DEBUG, LOG_DEBUG};
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The number of the connection that lines take, 0 for none. Who saw one fail ends that one and no
// later one.
std::atomic<unsigned> g_connection = 0;
std::atomic<int> g_socket = -1;           // once set, open until the process ends
std::atomic<std::int64_t> g_nextTry = 0;  // on the clock of now(); 0 for at once
std::atomic<unsigned long> g_lostLines = 0;
std::atomic<pid_t> g_pid = 0;  // 0 for not known yet

// Held while the socket is connected and while the C library is asked for local time: neither
// waits. Guards g_connects, and changes of g_socket.
std::mutex g_lock;
unsigned g_connects = 0;

// A child has a process id of its own, and must not inherit a lock that another thread held. Done
// before main, so that no fork comes in between.
[[maybe_unused]] const int g_followsForks =
    pthread_atfork([] { g_lock.lock(); }, [] { g_lock.unlock(); },
                   [] {
                       g_pid = 0;
                       g_lock.unlock();
                   });

std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

// Asking costs a system call.
pid_t processId() {
    pid_t id = g_pid.load();
    if (id == 0) {
        id = getpid();
        g_pid = id;
    }
    return id;
}

// Gives the number that the socket has then; -1 when it could not be kept and is closed.
int moveOutOfTheWay(int socket) {
    int moved = fcntl(socket, F_DUPFD_CLOEXEC, kFirstHighDescriptor);
    if (moved == -1 && socket < kFirstDescriptor) {
        moved = fcntl(socket, F_DUPFD_CLOEXEC, kFirstDescriptor);
    } else if (moved == -1) {
        return socket;
    }
    close(socket);
    return moved;
}

bool connectToLog(int socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof _PATH_LOG <= sizeof address.sun_path);
    std::memcpy(address.sun_path, _PATH_LOG, sizeof _PATH_LOG);
    return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// Opens a connected socket. -1 when there is none to be had.
int openSocket() {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket == -1) {
        return -1;
    }
    if (!connectToLog(socket)) {
        close(socket);
        return -1;
    }
    return moveOutOfTheWay(socket);
}

// Whether lines have a connection, or it is time to try for one.
bool isWorthALine() {
    return g_connection.load() != 0 || now() >= g_nextTry.load();
}

// Gives the number of the connection; 0 when there is none, and it is too early to try again or
// that failed.
unsigned connection() {
    const unsigned open = g_connection.load();
    if (open != 0 || now() < g_nextTry.load()) {
        return open;
    }
    const std::lock_guard<std::mutex> lock(g_lock);
    if (g_connection.load() != 0 || now() < g_nextTry.load()) {
        return g_connection.load();  // another thread has tried meanwhile
    }
    int socket = g_socket.load();
    bool isConnected = socket != -1 && connectToLog(socket);
    if (socket == -1 || (!isConnected && errno == EBADF)) {
        socket = openSocket();
        g_socket = socket;
        isConnected = socket != -1;
    }
    g_nextTry = now() + kRetryMilliseconds;
    if (isConnected) {
        g_connection = ++g_connects;
    }
    return g_connection.load();
}

// 0, or the errno of the failure.
int sendOnce(const char* line, std::size_t length) {
    const int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
    return send(g_socket.load(), line, length, flags) == -1 ? errno : 0;
}

// A daemon that is started anew from now on is to be found at once.
void noteArrival() {
    if (g_nextTry.load() != 0) {
        g_nextTry = 0;
    }
}

bool isLackOfRoom(int error) {
    return error == EAGAIN || error == ENOBUFS || error == ENOMEM;
}

// Whether the line was handed over. A daemon that was started anew is found at once, if lines have
// arrived since the last attempt.
bool sendLine(const char* line, std::size_t length) {
    for (int attempts = 0; attempts < 2; ++attempts) {
        unsigned used = connection();
        if (used == 0) {
            return false;
        }
        const int error = sendOnce(line, length);
        if (error == 0) {
            noteArrival();
            return true;
        }
        if (isLackOfRoom(error)) {
            return false;
        }
        // The daemon has ended. Another thread may have found that out before, and a new one.
        g_connection.compare_exchange_strong(used, 0);
    }
    return false;
}

// "Mmm dd hh:mm:ss" in local time. Asking for the time zone costs a system call and memory: once a
// second is often enough to follow a change of it.
const char* timeStamp() {
    static thread_local char stamp[kStampBytes];
    static thread_local std::time_t stamped = -1;
    const std::time_t time = std::time(nullptr);
    if (time != stamped) {
        std::tm local{};
        const std::lock_guard<std::mutex> lock(g_lock);
        tzset();
        localtime_r(&time, &local);
        std::snprintf(stamp, sizeof stamp, "%s %2d %02d:%02d:%02d", kMonths[local.tm_mon],
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        stamped = time;
    }
    return stamp;
}

// What stands in front of the text. Gives its length.
std::size_t writeHead(char* head, int priority) {
    return static_cast<std::size_t>(std::snprintf(head, kHeadBytes,
                                                  "<%d>%s quilagent[%d]: ", LOG_DAEMON | priority,
                                                  timeStamp(), static_cast<int>(processId())));
}

// Before the line that comes next. False when the daemon cannot take this one either.
bool reportLostLines() {
    const unsigned long lost = g_lostLines.exchange(0);
    if (lost == 0) {
        return true;
    }
    char line[kHeadBytes + 64];
    const std::size_t head = writeHead(line, LOG_WARNING);
    const int text = std::snprintf(line + head, sizeof line - head, "%lu lines lost", lost);
    if (sendLine(line, head + static_cast<std::size_t>(text))) {
        return true;
    }
    g_lostLines += lost;
    return false;
}

bool isControl(char byte) {
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || code == 0x7F;
}

std::size_t makeSafe(char* text, std::size_t length) {
    while (length > 0 && text[length - 1] == '\n') {
        --length;
    }
    std::replace_if(text, text + length, isControl, ' ');
    return length;
}

}  // namespace

void slogf(std::uint32_t /*code*/, int severity, const char* format, ...) {
    // Not on the stack, of which the C library takes enough by itself.
    static thread_local char line[kHeadBytes + kTextBytes];
    if (!isWorthALine()) {
        ++g_lostLines;
        return;
    }
    const std::size_t head = writeHead(line, kPriorities[std::clamp(severity, 0, 7)]);
    char* text = line + head;
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(text, kTextBytes, format, arguments);
    va_end(arguments);
    if (wanted < 0) {
        return;
    }
    const std::size_t length =
        makeSafe(text, std::min(static_cast<std::size_t>(wanted), kTextBytes - 1));
    if (!reportLostLines() || !sendLine(line, head + length)) {
        ++g_lostLines;
    }
}

namespace {

constexpr std::size_t kLinesAtATime = 64;

// The length of what can be sent as it stands, behind the head; -1 when the text has to be made
// safe first.
std::ptrdiff_t lengthAsItStands(const SlogEntry& line) {
    std::size_t length = std::min(line.length, kTextBytes - 1);
    while (length > 0 && line.text[length - 1] == '\n') {
        --length;
    }
    return std::any_of(line.text, line.text + length, isControl)
               ? -1
               : static_cast<std::ptrdiff_t>(length);
}

// Sends the first of these lines together. Gives how many arrived; 0 when the first has to go its
// own way, -1 when the daemon takes nothing at the moment.
std::ptrdiff_t sendTogether(const SlogEntry* lines, std::size_t count) {
    static thread_local char heads[8][kHeadBytes];
    std::size_t headLengths[8] = {};
    mmsghdr messages[kLinesAtATime] = {};
    iovec parts[kLinesAtATime][2];
    std::size_t ready = 0;
    for (; ready < std::min(count, kLinesAtATime); ++ready) {
        const std::ptrdiff_t length = lengthAsItStands(lines[ready]);
        if (length < 0) {
            break;
        }
        const auto severity = static_cast<std::size_t>(std::clamp(lines[ready].severity, 0, 7));
        if (headLengths[severity] == 0) {
            headLengths[severity] = writeHead(heads[severity], kPriorities[severity]);
        }
        parts[ready][0] = {heads[severity], headLengths[severity]};
        parts[ready][1] = {const_cast<char*>(lines[ready].text), static_cast<std::size_t>(length)};
        messages[ready].msg_hdr.msg_iov = parts[ready];
        messages[ready].msg_hdr.msg_iovlen = 2;
    }
    if (ready == 0) {
        return 0;
    }
    if (connection() == 0 || !reportLostLines()) {
        return -1;
    }
    const int sent = sendmmsg(g_socket.load(), messages, static_cast<unsigned>(ready),
                              MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
        return isLackOfRoom(errno) ? -1 : 0;
    }
    noteArrival();
    return sent;
}

}  // namespace

// A line that cannot go with the others, because it has to be made safe or the connection anew,
// goes alone.
void slogLines(std::uint32_t code, const SlogEntry* lines, std::size_t count) {
    if (count > 0 && !isWorthALine()) {
        g_lostLines += count;
        return;
    }
    for (std::size_t at = 0; at < count;) {
        const std::ptrdiff_t sent = sendTogether(lines + at, count - at);
        if (sent < 0) {
            g_lostLines += count - at;
            return;
        }
        at += static_cast<std::size_t>(sent);
        if (sent == 0) {
            slogf(code, lines[at].severity, "%.*s", static_cast<int>(lines[at].length),
                  lines[at].text);
            ++at;
        }
    }
}
