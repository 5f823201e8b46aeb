#include "tools/quilctl/session_owners.hpp"

#include <optional>

#include "tools/quilctl/log_line.hpp"

void SessionOwners::read(std::istream& log) {
    for (std::string line; std::getline(log, line);) {
        if (const std::optional<LogLine> parsed = parseLogLine(line)) {
            take(parsed->text);
        }
    }
}

void SessionOwners::take(std::string_view text) {
    // Another object service counts its connections from the start again, and another agent knows
    // of none of them.
    if (text.find("object service lost") != std::string_view::npos ||
        text.find("Entering quilAgentLoop") != std::string_view::npos) {
        m_connections.clear();
        return;
    }
    static constexpr std::string_view kBefore = "quilCreateSession provider id [";
    static constexpr std::string_view kBetween = "] client id [";
    const std::optional<std::string> app = betweenLast(text, kBefore, kBetween);
    if (!app) {
        return;
    }
    const std::size_t start = text.rfind(kBetween) + kBetween.size();
    m_connections[*app] = std::string(text.substr(start, text.find(']', start) - start));
}

std::set<std::string> SessionOwners::applicationsOf(const std::string& connection) const {
    std::set<std::string> applications;
    for (const auto& [app, owner] : m_connections) {
        if (owner == connection) {
            applications.insert(app);
        }
    }
    return applications;
}
