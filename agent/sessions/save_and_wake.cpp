// The loop first: it must not go on watching a socket that is closed while the save takes its time.

#include "agent/sessions/save_and_wake.hpp"

#include "agent/sessions/saved_sessions.hpp"
#include "agent/support/log.hpp"
#include "agent/support/wake_up.hpp"

void cleanup() {
    wakeMainLoop();
    const int saved = QuilDataManager::getInstance()->save();
    QUIL_LOG(LOG_LEVEL_INFO, "cleanup: Save to persistent memory returns %d", saved);
}
