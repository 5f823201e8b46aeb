// The ids of the last pushes, so that a push that comes a second time is known as such.

#pragma once

#include <deque>
#include <set>
#include <string>

namespace quilclient {

class RecentIds {
  public:
    static constexpr std::size_t kMax = 1024;

    // Remembers `id`, and forgets the oldest one beyond kMax. True when it was known already.
    bool remember(const std::string& id) {
        if (!m_known.insert(id).second) {
            return true;
        }
        m_order.push_back(id);
        if (m_order.size() > kMax) {
            m_known.erase(m_order.front());
            m_order.pop_front();
        }
        return false;
    }

  private:
    std::set<std::string> m_known;
    std::deque<std::string> m_order;
};

}  // namespace quilclient
