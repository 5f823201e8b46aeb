// The object is opened with "?wait" and O_NONBLOCK: a read with nothing to give then says EAGAIN,
// so that 0 has one meaning only, the end. Messages travel whole, so when nothing is left to read,
// the last one is complete.

#include "client/connection.hpp"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/root/root.hpp"

namespace quilclient {

namespace {

constexpr std::size_t kMaxBacklog = 256;            // messages
constexpr std::size_t kMaxHeldBytes = 1024 * 1024;  // of a message that does not end; bytes
constexpr std::size_t kReadBytes = 64 * 1024;       // taken by one read
constexpr int kMaxReadsPerCall = 64;                // so that a flood does not starve the caller

bool isObjectServiceMounted() {
    struct statfs info {};
    return statfs(platformPath("/pps").c_str(), &info) == 0 && info.f_type == FUSE_SUPER_MAGIC;
}

Result openFailure(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return resultOf(isObjectServiceMounted() ? kNoAgent : kNoObjectService);
        case ENOTCONN:
        case ECONNABORTED:
        case EIO:
            return {kNoObjectService, "the object service died and left a dead mount on /pps"};
        case EACCES:
        case EPERM:
            return resultOf(kNoPermission);
        default:
            return {kSystemError,
                    std::string("cannot open /pps/services/push/ipc: ") + std::strerror(error)};
    }
}

Result lost(int error) {
    return {kConnectionLost,
            std::string(explain(kConnectionLost).meaning) + ": " + std::strerror(error)};
}

}  // namespace

Result Connection::open(const std::function<int()>& opener) {
    close();
    const std::string path = platformPath("/pps/services/push/ipc") + "?wait";
    errno = 0;
    m_descriptor = opener ? opener() : ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    return m_descriptor >= 0 ? Result{} : openFailure(errno);
}

void Connection::close() {
    if (m_descriptor >= 0) {
        ::close(m_descriptor);
    }
    m_descriptor = -1;
    m_splitter = MessageSplitter();
    m_backlog.clear();
}

Result Connection::receive(std::vector<std::string>* messages) {
    std::vector<char> buffer(kReadBytes);
    bool isDrained = false;
    for (int i = 0; i < kMaxReadsPerCall && !isDrained; ++i) {
        const ssize_t count = read(m_descriptor, buffer.data(), buffer.size());
        const int error = errno;
        if (count > 0) {
            m_splitter.add(buffer.data(), static_cast<std::size_t>(count));
            continue;
        }
        if (count < 0 && error == EINTR) {
            continue;
        }
        isDrained = true;
        if (count == 0 || error != EAGAIN) {
            m_splitter.take(true, messages);
            return count == 0 ? resultOf(kConnectionLost) : lost(error);
        }
    }
    if (!m_splitter.take(isDrained, messages)) {
        return resultOf(kConnectionLost);
    }
    if (m_splitter.heldBytes() > kMaxHeldBytes) {
        return {kConnectionLost, "the agent sent a message without an end"};
    }
    return {};
}

Result Connection::writeOne(const std::string& message, bool* isSent) {
    *isSent = false;
    for (;;) {
        const ssize_t count = write(m_descriptor, message.data(), message.size());
        if (count >= 0) {
            *isSent = true;
            const bool isWhole = static_cast<std::size_t>(count) == message.size();
            return isWhole ? Result{} : Result{kConnectionLost, "a request was sent in part only"};
        }
        if (errno == EAGAIN || errno == ENOBUFS) {
            return {};
        }
        if (errno != EINTR) {
            return lost(errno);
        }
    }
}

Result Connection::flush() {
    while (!m_backlog.empty()) {
        bool isSent = false;
        Result result = writeOne(m_backlog.front(), &isSent);
        if (!result.ok() || !isSent) {
            return result;
        }
        m_backlog.pop_front();
    }
    return {};
}

Result Connection::send(std::string message) {
    if (m_backlog.size() >= kMaxBacklog) {
        return resultOf(kQueueFull);
    }
    m_backlog.push_back(std::move(message));
    return flush();
}

}  // namespace quilclient
