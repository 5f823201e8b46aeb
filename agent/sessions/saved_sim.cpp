// An unknown SIM counts as the same: it must not cost anybody a channel.

#include "agent/sessions/saved_sim.hpp"

#include "agent/configuration/config_manager.hpp"
#include "agent/support/log.hpp"

namespace {

// "" until sessions were loaded. Never destroyed, as other threads may outlive main.
std::string& savedImsi() {
    static auto* const imsi = new std::string();
    return *imsi;
}

}  // namespace

void setSavedImsi(const std::string& imsi) {
    savedImsi() = imsi;
}

bool isSameSim() {
    const std::string current = QuilConfigManager::getInstance()->getImsi();
    QUIL_LOG(LOG_LEVEL_DEBUG, "m_imsi[%s] current imsi [%s]", savedImsi().c_str(), current.c_str());
    return savedImsi().empty() || current.empty() || savedImsi() == current;
}
