// The object service keeps what one write gives it, whole or not at all, and merges it by
// attribute: so a save is a single write of three attributes, without seeking and without
// truncating.

#include "agent/sessions/saved_sessions.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "agent/configuration/config_manager.hpp"
#include "agent/sessions/saved_sim.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/decoder_string.hpp"
#include "agent/support/log.hpp"
#include "platform/root/root.hpp"

namespace {

constexpr const char* kFolder = "/pps/services/push/";
constexpr const char* kObjectName = "quilagent";
// What one load can take in; an object that is longer is cut there and then does not parse.
constexpr std::size_t kLoadBytes = 15359;
// The modes differ on purpose: an object that the agent finds or makes beside others is closed to
// strangers, one in a folder that the agent had to make itself is left to that folder's mode.
constexpr mode_t kObjectMode = 0660;
constexpr mode_t kObjectModeInNewFolder = 0666;
constexpr mode_t kFolderMode = 0755;

}  // namespace

QuilDataManager* QuilDataManager::getInstance() {
    static QuilDataManager* const instance = []() -> QuilDataManager* {
        try {
            return new QuilDataManager();
        } catch (...) {
            return nullptr;
        }
    }();
    return instance;
}

QuilDataManager::QuilDataManager() : m_path(std::string(kFolder) + kObjectName) {
    setupPpsHandle();
    const QuilLock lock(m_saveLock);
    pps_encoder_initialize(&m_encoder, false);
    pps_decoder_initialize(&m_decoder, nullptr);
}

void QuilDataManager::setupPpsHandle() {
    const std::string realPath = platformPath(m_path);
    flushLogEcho();  // the object service may be slow to answer, here and below
    m_handle = open(realPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kObjectMode);
    QUIL_LOG(LOG_LEVEL_INFO,
             "QuilDataManager::setupPpsHandle: open PPS file[%s] errno[%d] handle[%d]",
             m_path.c_str(), errno, m_handle);
    if (m_handle != -1) {
        return;
    }
    QUIL_LOG(LOG_LEVEL_WARNING, "Could not open PPS file [%s], errno=%d", m_path.c_str(), errno);
    if (mkdir(platformPath(kFolder).c_str(), kFolderMode) != 0) {
        QUIL_LOG(LOG_LEVEL_WARNING, "ERROR: could not create PPS path[%s], errno=%d fd=%d", kFolder,
                 errno, m_handle);
        return;
    }
    m_handle = open(realPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kObjectModeInNewFolder);
    if (m_handle == -1) {
        QUIL_LOG(LOG_LEVEL_WARNING, "ERROR: Could not create PPS  file [%s], errno=%d fd=%d",
                 m_path.c_str(), errno, m_handle);
    }
}

bool QuilDataManager::readObject() {
    char buffer[kLoadBytes + 1];
    flushLogEcho();
    const ssize_t count = read(m_handle, buffer, kLoadBytes);
    if (count <= 0) {
        return true;
    }
    buffer[count] = '\0';
    QUIL_LOG(LOG_LEVEL_DEBUG, "Read: %s", buffer);
    if (pps_decoder_parse_pps_str(&m_decoder, buffer) != PPS_DECODER_OK ||
        pps_decoder_length(&m_decoder) == 0) {
        return false;
    }
    pps_decoder_push(&m_decoder, nullptr);
    const std::string storedImsi = readString(&m_decoder, "imsi");
    setSavedImsi(storedImsi);
    m_storedVersion = readString(&m_decoder, "version");
    QUIL_LOG(LOG_LEVEL_DEBUG, "QuilDataManager: imsi [%s] version[%s]", storedImsi.c_str(),
             m_storedVersion.c_str());
    return true;
}

int QuilDataManager::load() {
    try {
        return loadSessions();
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilDataManager::load: exception occurred when loading the sessions");
        return 0;
    }
}

int QuilDataManager::loadSessions() {
    if (!readObject()) {
        return 0;
    }
    const int sameSim = is_same_sim();
    QUIL_LOG(LOG_LEVEL_DEBUG, "load: is_same_sim [%d]", sameSim);
    QuilSessionManager* sessions = QuilSessionManager::getInstance();
    if (sessions == nullptr) {
        QUIL_LOG(LOG_LEVEL_INFO, "QuilDataManager::load: session manager is NULL");
        return 0;
    }
    const int result = sessions->load(&m_decoder, sameSim != 0);
    QUIL_LOG(LOG_LEVEL_DEBUG, "Load: session manager.load returns %d", result);
    pps_decoder_cleanup(&m_decoder);
    return result;
}

int QuilDataManager::is_same_sim() const {
    return isSameSim() ? 1 : 0;
}

int QuilDataManager::initEncoder() {
    const QuilConfigManager* config = QuilConfigManager::getInstance();
    if (config == nullptr) {
        QUIL_LOG(LOG_LEVEL_INFO, "QuilDataManager::initEncoder: config_mgr is NULL");
        return 0;
    }
    const std::string imsi = config->getImsi();
    const std::string version = config->getVersion();
    pps_encoder_reset(&m_encoder);
    pps_encoder_start_object(&m_encoder, "@quilagent");
    QUIL_LOG(LOG_LEVEL_DEBUG, "Save: adding imsi and version to the quilagent pps object %s %s",
             imsi.c_str(), version.c_str());
    pps_encoder_add_string(&m_encoder, "version", version);
    pps_encoder_add_string(&m_encoder, "imsi", imsi);
    return 1;
}

int QuilDataManager::save() {
    const QuilLock lock(m_saveLock);
    int result = 0;
    try {
        if (m_isOutdated) {
            reopen();
        }
        result = saveSessions();
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilDataManager::save: exception occurred when saving the sessions");
    }
    pps_encoder_cleanup(&m_encoder);
    return result;
}

int QuilDataManager::reopenAndSave() {
    {
        const QuilLock lock(m_saveLock);
        m_isOutdated = true;
        if (!reopen()) {
            return 0;
        }
    }
    return save();
}

bool QuilDataManager::reopen() {
    flushLogEcho();
    const int handle =
        open(platformPath(m_path).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kObjectMode);
    if (handle == -1) {
        QUIL_LOG(LOG_LEVEL_WARNING, "Could not open PPS file [%s], errno=%d", m_path.c_str(),
                 errno);
        return false;
    }
    m_isOutdated = false;
    if (m_handle == -1) {
        m_handle = handle;
    } else {
        dup3(handle, m_handle, O_CLOEXEC);
        close(handle);
    }
    return true;
}

int QuilDataManager::saveSessions() {
    if (initEncoder() == 0) {
        return 0;
    }
    QuilSessionManager* sessions = QuilSessionManager::getInstance();
    if (sessions == nullptr) {
        QUIL_LOG(LOG_LEVEL_INFO, "QuilDataManager::save: session manager is NULL");
        return 0;
    }
    const int result = sessions->save(&m_encoder);
    QUIL_LOG(LOG_LEVEL_DEBUG, "Save: session manager.save returns %d", result);
    if (result != 0) {
        const std::size_t length = pps_encoder_length(&m_encoder);
        if (length > kLoadBytes) {
            QUIL_LOG(LOG_LEVEL_WARNING,
                     "QuilDataManager::save: %d bytes exceed the %d that can be loaded",
                     static_cast<int>(length), static_cast<int>(kLoadBytes));
        }
        flushLogEcho();
        const ssize_t written = write(m_handle, pps_encoder_buffer(&m_encoder), length);
        QUIL_LOG(LOG_LEVEL_INFO, "Save: Wrote %d bytes to pps.", static_cast<int>(written));
    }
    return result;
}

std::string QuilDataManager::readString(pps_decoder_t* decoder, const char* name) {
    return ::readString(decoder, name);
}
