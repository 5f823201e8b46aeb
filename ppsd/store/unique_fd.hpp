// Owner of one descriptor.

#pragma once

#include <unistd.h>

#include <utility>

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    // Gives the descriptor away: somebody else closes it.
    int release() { return std::exchange(m_fd, -1); }
    void reset() {
        if (m_fd >= 0) {
            close(std::exchange(m_fd, -1));
        }
    }

  private:
    int m_fd = -1;
};
