// Keeps the sessions across restarts, in the object "/pps/services/push/quilagent".
// docs/formats/saved_sessions.md shows its text.

#pragma once

#include <string>

#include "agent/support/locks.hpp"
#include "platform/pps/decoder.hpp"
#include "platform/pps/encoder.hpp"

class QuilDataManager {
  public:
    // The one instance, made by the first call (start-up); lives until the process ends. Null when
    // it could not be made. Making it opens the object, or creates it.
    static QuilDataManager* getInstance();

    virtual ~QuilDataManager() = default;
    QuilDataManager(const QuilDataManager&) = delete;
    QuilDataManager& operator=(const QuilDataManager&) = delete;

    // Reads the object and hands its sessions to the session manager. Called once, by start-up,
    // before other threads exist. 0 when the object is damaged, there is no session manager or
    // memory ran out (then sessions may be missing), else 1.
    int load();
    // Writes version, IMSI and sessions, on any thread. 0 when nothing was written because there is
    // no configuration, no session manager or an exception on the way; else 1, also when the write
    // itself failed (which is logged, as the number of bytes written).
    int save();
    // Opens the object anew after the object service has come back, and saves. The result of that;
    // 0 when the object cannot be opened, which is logged, and then tried again at each save until
    // it can be. Any thread.
    int reopenAndSave();
    // 1 when the SIM is the one of the last load, or when either of the two is not known; else 0.
    int is_same_sim() const;

    // The string `name` of the decoder's present object, "" when it is absent or no string.
    static std::string readString(pps_decoder_t* decoder, const char* name);

  private:
    QuilDataManager();
    void setupPpsHandle();
    bool readObject();
    int loadSessions();
    bool reopen() REQUIRES(m_saveLock);
    int initEncoder() REQUIRES(m_saveLock);
    int saveSessions() REQUIRES(m_saveLock);

    QuilMutex m_saveLock;  // outermost of all locks; held throughout a save
    int m_handle = -1;     // replaced under m_saveLock once other threads exist
    bool m_isOutdated GUARDED_BY(m_saveLock) = false;  // the handle, with the service it was of
    pps_encoder_t m_encoder GUARDED_BY(m_saveLock);
    pps_decoder_t m_decoder;  // used by load alone
    std::string m_path;
    std::string m_storedVersion;
};
