// One thread waits for requests of the kernel, and while there is work at the disk for that as
// well. Where nothing but a request can come, the read that takes it is all the waiting there is;
// beside others the device is non-blocking, because a request can be withdrawn between poll and
// read.
//
// Signals interrupt the wait. One that comes just before it would be noticed by the next request
// only, so it reminds of itself until the loop has ended.

#include "ppsd/fuse/loop.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "ppsd/fuse/mount_point.hpp"
#include "ppsd/fuse/operation_table.hpp"

namespace {

constexpr unsigned kReminderSeconds = 1;

// A thread sanitizer keeps a signal that comes just before a read from its handler until the read
// has returned, which then is for good; a poll it lets be interrupted.
#if defined(__SANITIZE_THREAD__)
constexpr bool kMayWaitInRead = false;
#else
constexpr bool kMayWaitInRead = true;
#endif

volatile std::sig_atomic_t g_isSignalled = 0;

void remind(int /*signal*/) {
    alarm(kReminderSeconds);
}

void noteSignal(int /*signal*/) {
    g_isSignalled = 1;
    alarm(kReminderSeconds);
}

bool handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;  // without SA_RESTART
    return sigaction(signal, &action, nullptr) == 0;
}

sigset_t endingSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);  // of a terminal that closes: a dead mount would stay otherwise
    return set;
}

}  // namespace

Loop::Loop(Store& store, OpenFiles& files)
    : m_store(store), m_operations(store, files), m_files(files) {}

Loop::~Loop() {
    end();
    if (m_session != nullptr) {
        fuse_session_destroy(m_session);
    }
}

bool Loop::catchSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    const sigset_t set = endingSignals();
    return sigprocmask(SIG_BLOCK, &set, nullptr) == 0 && handle(SIGALRM, remind) &&
           handle(SIGTERM, noteSignal) && handle(SIGINT, noteSignal) && handle(SIGHUP, noteSignal);
}

bool Loop::mount(const std::string& mountPoint) {
    const std::string options = mountOptions();
    const char* arguments[] = {"ppsd", "-o", options.c_str()};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(arguments));
    const fuse_lowlevel_ops table = operationTable();
    m_session = fuse_session_new(&args, &table, sizeof table, &m_operations);
    fuse_opt_free_args(&args);
    if (m_session == nullptr || fuse_session_mount(m_session, mountPoint.c_str()) != 0) {
        return false;
    }
    m_isMounted = true;
    const int error = m_store.startDiskThread();
    if (error != 0) {
        std::fprintf(stderr, "ppsd: cannot start a thread\n");
        return false;
    }
    return true;
}

int Loop::setBlocking(bool isBlocking) {
    if (isBlocking == m_isBlocking) {
        return 0;
    }
    const int device = fuse_session_fd(m_session);
    const int flags = fcntl(device, F_GETFL);
    if (flags < 0 ||
        fcntl(device, F_SETFL, isBlocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK) != 0) {
        return errno;
    }
    m_isBlocking = isBlocking;
    return 0;
}

// Waits for a request, and answers it. 0 or an errno value.
int Loop::serveOne(fuse_buf& buffer) {
    const int received = fuse_session_receive_buf(m_session, &buffer);
    if (received > 0) {
        fuse_session_process_buf(m_session, &buffer);
        m_files.wakeSome();
        return 0;
    }
    return received == -EAGAIN || received == -EINTR ? 0 : -received;
}

// The same where there are others to wake, or work at the disk: one request and some of those take
// turns.
int Loop::serveSome(fuse_buf& buffer) {
    pollfd sources[] = {{fuse_session_fd(m_session), POLLIN, 0},
                        {m_store.diskDescriptor(), POLLIN, 0}};
    if (poll(sources, std::size(sources), m_files.hasChanged() ? 0 : -1) < 0) {
        return errno == EINTR ? 0 : errno;
    }
    if (sources[1].revents != 0) {
        m_store.finishChanges();
    }
    if (sources[0].revents != 0) {
        return serveOne(buffer);
    }
    m_files.wakeSome();
    return 0;
}

int Loop::run() {
    const sigset_t set = endingSignals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    fuse_buf buffer{};
    int error = 0;
    while (error == 0 && g_isSignalled == 0 && fuse_session_exited(m_session) == 0) {
        const bool isAlone = kMayWaitInRead && !m_files.hasChanged() && !m_store.isDiskBusy();
        error = setBlocking(isAlone);
        if (error == 0) {
            error = isAlone ? serveOne(buffer) : serveSome(buffer);
        }
    }
    // No more of them, or one would end the program by which an ordinary user unmounts.
    sigprocmask(SIG_BLOCK, &set, nullptr);
    alarm(0);
    std::free(buffer.mem);
    end();
    return error;
}

void Loop::end() {
    m_store.endChanges(ENOTCONN);
    m_files.closeAll();
    unmount();
}

// Lazily: a busy file system goes out of sight now and away with its last user.
void Loop::unmount() {
    if (m_isMounted) {
        m_isMounted = false;
        fuse_session_unmount(m_session);
    }
}
