// What the live tests do to files, each as one call whose result reads well in a failure message.

#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

// How long a test waits for what must happen; far above what it takes, for slow machines.
inline constexpr int kPatienceMilliseconds = 30000;
// How long a test watches that nothing happens.
inline constexpr int kQuietMilliseconds = 50;

// A descriptor on an object.
class PpsFile {
  public:
    PpsFile(const std::string& path, int flags, mode_t mode = 0666)
        : m_fd(open(path.c_str(), flags | O_CLOEXEC, mode)), m_error(m_fd < 0 ? errno : 0) {}
    PpsFile(PpsFile&& other) noexcept
        : m_fd(std::exchange(other.m_fd, -1)), m_error(other.m_error) {}
    PpsFile& operator=(PpsFile&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        std::swap(m_error, other.m_error);
        return *this;
    }
    PpsFile(const PpsFile&) = delete;
    PpsFile& operator=(const PpsFile&) = delete;
    ~PpsFile() { shut(); }

    void shut() {
        if (m_fd >= 0) {
            close(std::exchange(m_fd, -1));
        }
    }
    int fd() const { return m_fd; }

    // errno of the open, 0 when it succeeded.
    int error() const { return m_error; }

    // One read: the bytes, or "errno: text".
    std::string read(std::size_t size = 512 * 1024) const {
        std::string bytes(size, '\0');
        const ssize_t got = ::read(m_fd, bytes.data(), bytes.size());
        if (got < 0) {
            return std::string("errno: ") + std::strerror(errno);
        }
        bytes.resize(static_cast<std::size_t>(got));
        return bytes;
    }

    // One write: 0 when all was taken, else errno, or -1 for a short write.
    int write(std::string_view text) const {
        const ssize_t written = ::write(m_fd, text.data(), text.size());
        if (written < 0) {
            return errno;
        }
        return written == static_cast<ssize_t>(text.size()) ? 0 : -1;
    }

    // The events that poll reports of POLLIN, POLLOUT and POLLHUP within the time.
    int events(int milliseconds = 0, short wanted = POLLIN | POLLOUT) const {
        pollfd source{m_fd, wanted, 0};
        const int count = poll(&source, 1, milliseconds);
        return count < 0 ? -errno : source.revents;
    }
    bool becomesReadable() const { return (events(kPatienceMilliseconds, POLLIN) & POLLIN) != 0; }

  private:
    int m_fd;
    int m_error;
};
