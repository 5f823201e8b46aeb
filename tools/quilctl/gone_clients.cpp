#include "tools/quilctl/gone_clients.hpp"

#include <algorithm>

#include "tools/quilctl/log_line.hpp"

namespace {

// A session goes on naming the last connection of its application; an agent has fewer of them.
constexpr std::size_t kMostClients = 4096;

}  // namespace

void GoneClients::take(std::string_view text) {
    if (startsWith(text, "PPS_DELETE: removed client id [")) {
        m_clients.push_back(between(text, "client id [", "] return").value_or(""));
        if (m_clients.size() > kMostClients) {
            m_clients.pop_front();
        }
    } else if (startsWith(text, "---") && contains(text, " PPS_CREATED")) {
        m_isNew = true;
    } else if (m_isNew && startsWith(text, "Empty message received from [")) {
        std::erase(m_clients, betweenLast(text, "from [", "]").value_or(""));
        m_isNew = false;
    } else if (startsWith(text, "clientIf_getMsg - Reading")) {
        m_isNew = false;
    }
}

bool GoneClients::has(const std::string& clientId) const {
    // By no name whoever is there is addressed.
    return !clientId.empty() &&
           std::find(m_clients.begin(), m_clients.end(), clientId) != m_clients.end();
}
