// A pause that doubles with every failure, up to a bound.

#pragma once

#include <algorithm>
#include <chrono>

namespace quilclient {

class Backoff {
  public:
    Backoff(std::chrono::milliseconds first, std::chrono::milliseconds longest)
        : m_first(std::max(first, std::chrono::milliseconds(1))),
          m_longest(std::max(longest, m_first)) {}

    // The pause after one more failure.
    std::chrono::milliseconds next() {
        m_last = m_last == std::chrono::milliseconds(0) ? m_first : std::min(m_last * 2, m_longest);
        return m_last;
    }
    void reset() { m_last = std::chrono::milliseconds(0); }

  private:
    std::chrono::milliseconds m_first;
    std::chrono::milliseconds m_longest;
    std::chrono::milliseconds m_last{0};
};

}  // namespace quilclient
