// Whatever goes wrong takes rights away and gives none: a file that cannot be read, a line that
// cannot be understood, a name that cannot be found out.

#include "agent/requests/permissions.hpp"

#include <utility>

#include "agent/configuration/config_manager.hpp"
#include "agent/support/log.hpp"
#include "platform/rules/rules_file.hpp"

namespace {

constexpr std::uint32_t kRoot = 0;
constexpr std::size_t kMostErrorLines = 20;  // in the log; quilctl shows them all

// The lines that are bad, for whoever has to mend them.
void logErrors(const std::string& path, const std::vector<RuleError>& errors) {
    for (std::size_t i = 0; i < errors.size() && i < kMostErrorLines; ++i) {
        QUIL_LOG(LOG_LEVEL_WARNING, "rules: %s line %d %s", path.c_str(), errors[i].line,
                 errors[i].reason.c_str());
    }
    if (errors.size() > kMostErrorLines) {
        QUIL_LOG(LOG_LEVEL_WARNING, "rules: %s has %d more bad lines", path.c_str(),
                 static_cast<int>(errors.size() - kMostErrorLines));
    }
}

}  // namespace

QuilPermissions* QuilPermissions::getInstance() {
    static QuilPermissions* const instance = []() -> QuilPermissions* {
        try {
            return new QuilPermissions();
        } catch (...) {
            return nullptr;
        }
    }();
    return instance;
}

QuilPermissions::QuilPermissions() {
    m_isRestricting = QuilConfigManager::getInstance()->isRulesSet();
    if (m_isRestricting) {
        load();
    }
}

void QuilPermissions::load() {
    try {
        takeRules(QuilConfigManager::getInstance()->getValue("rules"));
    } catch (...) {
        m_rules = Rules();
        QUIL_LOG(LOG_LEVEL_WARNING, "rules: no memory to read them: only root may act");
    }
}

void QuilPermissions::takeRules(const std::string& path) {
    RulesFile file = readConfiguredRules(path);
    if (!file.problem.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING, "rules: cannot read %s: %s", path.c_str(),
                 file.problem.c_str());
    }
    logErrors(path, file.rules.errors());
    if (!file.isSound()) {
        QUIL_LOG(LOG_LEVEL_WARNING, "rules: only root may act for applications");
        return;
    }
    m_rules = std::move(file.rules);
    QUIL_LOG(LOG_LEVEL_INFO, "rules: %d lines of %s say who may act for which application",
             static_cast<int>(m_rules.rules().size()), path.c_str());
}

void QuilPermissions::addConnection(const std::string& clientId, std::uint32_t user,
                                    std::uint32_t group) {
    if (!m_isRestricting) {
        return;
    }
    try {
        m_connections.insert_or_assign(clientId, Connection{user, group, nullptr, nullptr});
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilPermissions::addConnection: exception occurred when adding client id [%s]",
                 clientId.c_str());
    }
}

void QuilPermissions::removeConnection(const std::string& clientId) {
    m_connections.erase(clientId);
}

void QuilPermissions::forgetConnections() {
    m_connections.clear();
}

bool QuilPermissions::hasGrants(Connection* connection) const {
    if (connection->grants != nullptr) {
        return true;
    }
    if (connection->lookup == nullptr) {
        connection->lookup = UserLookup::begin(m_rules, connection->user, connection->group);
    }
    if (connection->lookup == nullptr) {
        return false;
    }
    const UserLookup::State state = connection->lookup->await();
    if (state == UserLookup::State::Done) {
        connection->grants = std::make_unique<Grants>(connection->lookup->grants());
    }
    if (state != UserLookup::State::UnderWay) {
        connection->lookup = nullptr;  // one that failed is begun again with the next request
    }
    return connection->grants != nullptr;
}

bool QuilPermissions::mayAct(const std::string& clientId, const std::string& appId) {
    if (!m_isRestricting) {
        return true;
    }
    const auto found = m_connections.find(clientId);
    if (found == m_connections.end()) {
        return false;
    }
    Connection& connection = found->second;
    if (connection.user == kRoot) {
        return true;
    }
    if (connection.grants == nullptr) {
        // Nobody waits for the name service whom a line lets act by the numbers alone.
        const Grants byNumbers = m_rules.grantsOf({connection.user, "", {connection.group}, {}});
        if (m_rules.find(byNumbers, appId) != nullptr) {
            return true;
        }
    }
    return hasGrants(&connection) && m_rules.find(*connection.grants, appId) != nullptr;
}

std::string QuilPermissions::describeUser(const std::string& clientId) const {
    const auto found = m_connections.find(clientId);
    if (found == m_connections.end()) {
        return "not known";
    }
    const Connection& connection = found->second;
    const std::string number = std::to_string(connection.user);
    if (connection.grants == nullptr) {
        return number + ", whose name is not known yet";
    }
    const std::string& name = connection.grants->name;
    return name == number ? number : name + " (" + number + ")";
}
