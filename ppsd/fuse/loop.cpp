// One thread, one poll: requests of the kernel, signals, and what the disk's thread has finished.
// The device is non-blocking, because a request can be withdrawn between poll and read, and a read
// that then blocks would not see a signal.

#include "ppsd/fuse/loop.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "ppsd/fuse/mount_point.hpp"
#include "ppsd/fuse/operation_table.hpp"

namespace {

bool setNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
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
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);  // of a terminal that closes: a dead mount would stay otherwise
    std::signal(SIGPIPE, SIG_IGN);
    m_signals = UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
    return m_signals && sigprocmask(SIG_BLOCK, &set, nullptr) == 0;
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
    return setNonBlocking(fuse_session_fd(m_session));
}

int Loop::serveOne(fuse_buf& buffer) {
    const int received = fuse_session_receive_buf(m_session, &buffer);
    if (received > 0) {
        fuse_session_process_buf(m_session, &buffer);
        m_files.wakeSome();
        return 0;
    }
    return received == -EAGAIN || received == -EINTR ? 0 : -received;
}

// Waits for anything, and deals with what the disk's thread has finished. 0 or an errno value.
int Loop::wait(int milliseconds, bool& isSignalled, bool& isRequested) {
    pollfd sources[] = {{fuse_session_fd(m_session), POLLIN, 0},
                        {m_signals.get(), POLLIN, 0},
                        {m_store.diskDescriptor(), POLLIN, 0}};
    if (poll(sources, std::size(sources), milliseconds) < 0) {
        return errno == EINTR ? 0 : errno;
    }
    isRequested = sources[0].revents != 0;
    isSignalled = sources[1].revents != 0;
    if (sources[2].revents != 0) {
        m_store.finishChanges();
        m_files.wakeSome();
    }
    return 0;
}

int Loop::run() {
    fuse_buf buffer{};
    int error = 0;
    bool isSignalled = false;
    while (error == 0 && !isSignalled && fuse_session_exited(m_session) == 0) {
        bool isRequested = false;
        // While there are others to wake, one request and some of them take turns.
        error = wait(m_files.hasChanged() ? 0 : -1, isSignalled, isRequested);
        if (error == 0 && !isSignalled && isRequested) {
            error = serveOne(buffer);
        } else if (error == 0) {
            m_files.wakeSome();
        }
    }
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
