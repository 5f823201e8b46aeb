// One map, one lock. No exception leaves the manager, and the lock is released on every path;
// refusals never change the map.

#include "agent/sessions/session_manager.hpp"

#include "agent/sessions/port_changes.hpp"
#include "agent/sessions/saved_sim.hpp"
#include "agent/support/log.hpp"

namespace {

using Lock = QuilLock<QuilRecursiveMutex>;

}  // namespace

QuilSessionManager* QuilSessionManager::getInstance() {
    static QuilSessionManager* const instance = new (std::nothrow) QuilSessionManager();
    return instance;
}

QuilSessionManager::~QuilSessionManager() {
    removeAll();
}

int QuilSessionManager::addSession(std::unique_ptr<QuilSession>& session) {
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSessionManager::addSession -- attempt to add session for NULL session.");
        return 0;
    }
    const std::string appId = session->getProviderAppId();
    if (appId.empty()) {
        QUIL_LOG(
            LOG_LEVEL_WARNING,
            "QuilSessionManager::addSession -- attempt to add session for EMPTY provider app id");
        return 0;
    }
    int result = 1;
    {
        const Lock lock(m_lock);
        try {
            const auto found = m_sessions.find(appId);
            if (found == m_sessions.end()) {
                session->processEvent(EVENT_CREATE);
                m_sessions[appId] = std::move(session);
                notePortChange();
                QUIL_LOG(LOG_LEVEL_INFO, "QuilSessionManager::addSession -> added key [%s]\n",
                         appId.c_str());
            } else if (found->second != nullptr) {
                QUIL_LOG(LOG_LEVEL_INFO, "QuilSessionManager::addSession -- session  exist [%s]\n",
                         appId.c_str());
                found->second->setClientObjectId(session->getClientObjectId());
                found->second->processEvent(EVENT_CREATE);
            }
        } catch (...) {
            QUIL_LOG(LOG_LEVEL_WARNING, "exception occurred when adding session [%s]\n",
                     appId.c_str());
            result = 0;
        }
    }
    QUIL_LOG(LOG_LEVEL_INFO, "QuilSessionManager::addSession: return_code = %d\n", result);
    return result;
}

void QuilSessionManager::addSavedSession(std::unique_ptr<QuilSession> session) {
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSessionManager::addSavedSession -- attempt to add session for NULL session.");
        return;
    }
    const std::string appId = session->getProviderAppId();
    if (appId.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSessionManager::addSavedSession -- attempt to add session for EMPTY provider "
                 "app id");
        return;
    }
    int result = 1;
    {
        const Lock lock(m_lock);
        try {
            m_sessions[appId] = std::move(session);
            notePortChange();
            QUIL_LOG(LOG_LEVEL_INFO, "QuilSessionManager::addSavedSession -> added key [%s]\n",
                     appId.c_str());
        } catch (...) {
            QUIL_LOG(LOG_LEVEL_WARNING, "exception occurred when adding saved session [%s]\n",
                     appId.c_str());
            result = 0;
        }
    }
    QUIL_LOG(LOG_LEVEL_INFO, "QuilSessionManager::addSavedSession: return_code = %d\n", result);
}

QuilSession* QuilSessionManager::getSessionByAppId(const std::string& providerAppId) {
    if (providerAppId.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSessionManager::getSessionByAppId -- attempt to get session for EMPTY "
                 "provider app id");
        return nullptr;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "providerAppID is %s\n", providerAppId.c_str());
    const Lock lock(m_lock);
    QUIL_LOG(LOG_LEVEL_DEBUG, "getSessionByAppId: size of map %d",
             static_cast<int>(m_sessions.size()));
    const auto found = m_sessions.find(providerAppId);
    return found == m_sessions.end() ? nullptr : found->second.get();
}

QuilSession* QuilSessionManager::getSessionByClientId(const std::string& clientId) {
    const Lock lock(m_lock);
    if (m_sessions.empty()) {
        QUIL_LOG(
            LOG_LEVEL_WARNING,
            "QuilSessionManager::getSessionByClientId -- attempt to get session from EMPTY map.");
        return nullptr;
    }
    if (clientId.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSessionManager::getSessionByClientId -- attempt to get session for EMPTY "
                 "client id.");
        return nullptr;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "clientId is %s", clientId.c_str());
    try {
        QuilSession* candidate = nullptr;
        for (const auto& entry : m_sessions) {
            candidate = entry.second.get();
            if (candidate->getClientObjectId() == clientId) {
                break;
            }
        }
        return candidate;
    } catch (...) {
        // The class name and the lone bracket stand so in the logs that people search.
        QUIL_LOG(
            LOG_LEVEL_WARNING,
            "QuilPushMessage::getSessionByClientId: exception occurred when trying to retrieve "
            "the session by client Id %s].",
            clientId.c_str());
        return nullptr;
    }
}

int QuilSessionManager::sendEventByClientId(const std::string& clientId, int event) {
    QuilSession* session = getSessionByClientId(clientId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "Session for client id [%s] not found.", clientId.c_str());
        return 0;
    }
    session->processEvent(event);
    return 1;
}

int QuilSessionManager::deleteSession(const std::string& providerAppId) {
    const Lock lock(m_lock);
    try {
        const auto found = m_sessions.find(providerAppId);
        if (found == m_sessions.end()) {
            return 0;
        }
        if (found->second == nullptr) {
            m_sessions.erase(found);
            notePortChange();
            return 0;
        }
        found->second->processEvent(EVENT_DELETE);
        if (found->second->isDeleted()) {
            QUIL_LOG(LOG_LEVEL_INFO, "QuilSessionManager::deleteSession: session [%s] removed.",
                     providerAppId.c_str());
            m_sessions.erase(found);
            notePortChange();
        }
        return 1;
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSessionManager::removeSession: exception occurred when removing session [%s]",
                 providerAppId.c_str());
        return 0;
    }
}

int QuilSessionManager::deleteSessionByClientId(const std::string& clientId) {
    if (clientId.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilSessionManager::deleteSessionByClientId -- attempt to get session for EMPTY "
                 "client id.");
        return 0;
    }
    const QuilSession* session = getSessionByClientId(clientId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_INFO, "Session for client id [%s] not found.", clientId.c_str());
        return 0;
    }
    return deleteSession(session->getProviderAppId());
}

int QuilSessionManager::deleteSessionByProviderAppId(const std::string& providerAppId,
                                                     const SaveSessions& save) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "deleteSessionByProviderAppId: deleting [%s]", providerAppId.c_str());
    return deleteSession(providerAppId) == 0 ? 0 : save();
}

void QuilSessionManager::removeAll() {
    const Lock lock(m_lock);
    try {
        m_sessions.clear();
        notePortChange();
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING, "exception occurred when trying to remove ALL sessions.");
    }
}

int QuilSessionManager::save(pps_encoder_t* encoder) {
    pps_encoder_start_object(encoder, "dat");
    pps_encoder_start_array(encoder, "sessions");
    int result = 1;
    {
        const Lock lock(m_lock);
        try {
            for (const auto& entry : m_sessions) {
                const QuilSession& session = *entry.second;
                if (session.isRegistered() && session.hasPort()) {
                    session.save(encoder);
                }
            }
        } catch (...) {
            QUIL_LOG(LOG_LEVEL_WARNING,
                     "QuilSessionManager::save: exception occurred when trying to loop through "
                     "session map");
            result = 0;
        }
    }
    pps_encoder_end_array(encoder);
    pps_encoder_end_object(encoder);
    return result;
}

int QuilSessionManager::load(pps_decoder_t* decoder, bool sameSim) {
    pps_decoder_push(decoder, "dat");
    pps_decoder_push(decoder, "sessions");
    const int count = pps_decoder_length(decoder);
    QUIL_LOG(LOG_LEVEL_DEBUG, "Load: n_sessions [%d]", count);
    for (int i = 0; i < count; ++i) {
        pps_decoder_push(decoder, nullptr);
        addSavedSession(std::make_unique<QuilSession>(decoder, sameSim));
        pps_decoder_pop(decoder);
    }
    pps_decoder_pop(decoder);
    pps_decoder_pop(decoder);
    return 1;
}

int QuilSessionManager::processSimChange(const DestroyChannel& destroyChannel) {
    const Lock lock(m_lock);
    try {
        if (m_sessions.empty()) {
            QUIL_LOG(LOG_LEVEL_DEBUG, "processSimChange: session map is empty.");
            return 1;
        }
        if (isSameSim()) {
            QUIL_LOG(LOG_LEVEL_DEBUG, "processSimChange: is same sim");
            return 1;
        }
        for (const auto& entry : m_sessions) {
            QuilSession& session = *entry.second;
            QUIL_LOG(LOG_LEVEL_DEBUG, "processSimChange: app id [%s] port[%d] socket[%d]",
                     entry.first.c_str(), session.getPort().getPort(),
                     session.getPort().getSocket());
            if (session.isRegistered() && session.hasPort()) {
                // Without a request there is no request id. A reloaded session has no client id
                // either: its "onSimChange" goes to every client that is connected.
                destroyChannel(entry.first, "", session.getClientObjectId(), &session);
            }
        }
        return 1;
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING, "exception occurred when trying to get all ports.");
        return 0;
    }
}

std::vector<QuilPort*> QuilSessionManager::getAllPorts() {
    const Lock lock(m_lock);
    try {
        std::vector<QuilPort*> ports;
        for (const auto& entry : m_sessions) {
            QuilSession& session = *entry.second;
            QuilPort& port = session.getPort();
            QUIL_LOG(LOG_LEVEL_DEBUG, "app id [%s] port[%d] socket[%d]", entry.first.c_str(),
                     port.getPort(), port.getSocket());
            if (session.isRegistered() && session.hasPort()) {
                ports.push_back(&port);
            }
        }
        m_ports.swap(ports);
    } catch (...) {
        notePortChange();  // the list is to be taken again
        QUIL_LOG(LOG_LEVEL_WARNING, "exception occurred when trying to get all ports.");
    }
    return m_ports;
}

int QuilSessionManager::letGoOfDeadPushSockets() {
    const Lock lock(m_lock);
    int count = 0;
    for (const auto& entry : m_sessions) {
        count += entry.second->letGoOfDeadPushSockets();
    }
    return count;
}

void QuilSessionManager::forgetClients() {
    const Lock lock(m_lock);
    for (const auto& entry : m_sessions) {
        entry.second->setClientObjectId("");
    }
}
