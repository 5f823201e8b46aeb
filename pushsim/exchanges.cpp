#include "pushsim/exchanges.hpp"

#include <string_view>

namespace {

constexpr std::size_t kRepeatedBytes = 8191;
// Devices that never come back for their second step must not fill the memory.
constexpr std::size_t kMostExchanges = 1024;

std::string_view strip(std::string_view text) {
    constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
    const std::size_t first = text.find_first_not_of(kWhiteSpace);
    return first == std::string_view::npos
               ? std::string_view()
               : text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

}  // namespace

void Exchanges::remember(const std::string& firstTarget, const std::string& body) {
    const std::lock_guard lock(m_mutex);
    if (m_bodies.size() >= kMostExchanges) {
        m_bodies.erase(m_bodies.begin());
    }
    m_bodies[firstTarget] = strip(body).substr(0, kRepeatedBytes);
}

bool Exchanges::take(const std::string& secondTarget, std::string* firstTarget) {
    const std::lock_guard lock(m_mutex);
    for (auto at = m_bodies.begin(); at != m_bodies.end(); ++at) {
        if (secondTarget == at->first + "&" + at->second) {
            *firstTarget = at->first;
            m_bodies.erase(at);
            return true;
        }
    }
    return false;
}
