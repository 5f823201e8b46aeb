// The one registry of sessions.

#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/sessions/session.hpp"
#include "agent/support/locks.hpp"
#include "platform/pps/decoder.hpp"
#include "platform/pps/encoder.hpp"

// Owns every session. Safe on any thread: one lock guards the map, and its holder may take it again
// (processSimChange holds it while operations look sessions up). deleteSession and processSimChange
// aside, nothing that may block runs under it.
//
// A session pointer handed out stays the manager's. It is used without the lock, which is sound
// because running agents never remove a session: requests only change states, and the delete
// operations have no caller yet. Whoever calls them must do so on the main thread, while no other
// thread works on that session.
class QuilSessionManager {
  public:
    // The one instance, made by the first call; lives until the process ends. Null when it could
    // not be made.
    static QuilSessionManager* getInstance();

    virtual ~QuilSessionManager();
    QuilSessionManager(const QuilSessionManager&) = delete;
    QuilSessionManager& operator=(const QuilSessionManager&) = delete;

    // Adds a session, taking it out of `session`, and sends it the create event. When the
    // application already has one, that one is kept: it gets the new one's client id and the create
    // event, and `session` stays the caller's. 1 for both; 0 when refused (null, or without
    // application id), and `session` stays the caller's.
    int addSession(std::unique_ptr<QuilSession>& session);
    // Adds a reloaded session in the state that it has, in place of any other of that application.
    void addSavedSession(std::unique_ptr<QuilSession> session);

    QuilSession* getSessionByAppId(const std::string& providerAppId);
    // The session of that client. When there is none in a registry that is not empty, this gives
    // the last session in the order of application ids, not null. Kept on purpose: callers that
    // must tell a miss compare the client id of what they got.
    QuilSession* getSessionByClientId(const std::string& clientId);

    // 1 when sent, 0 when there is no session (see getSessionByClientId for what counts as one).
    int sendEventByClientId(const std::string& clientId, int event);

    // Sends the delete event, and removes the session if that led to state Delete; a registered
    // session stays, in Terminate. 1 in both cases, 0 when there is none.
    int deleteSession(const std::string& providerAppId);
    int deleteSessionByClientId(const std::string& clientId);
    // Also has the sessions saved, by `save`, and then gives the result of that.
    using SaveSessions = std::function<int()>;
    int deleteSessionByProviderAppId(const std::string& providerAppId, const SaveSessions& save);
    void removeAll();

    // Writes the attribute "dat" with the array "sessions": the sessions that are registered and
    // have a port. 1, or 0 after an exception (array and object are closed all the same).
    int save(pps_encoder_t* encoder);
    // Reads what save wrote; each session listens at once. 1.
    int load(pps_decoder_t* decoder, bool sameSim);

    // When the SIM is another than the saved sessions': has the channel of each of them destroyed
    // by `destroyChannel`, which takes what quilDestroyChannel takes and runs under the manager's
    // lock. 1, or 0 after an exception.
    using DestroyChannel = std::function<void(const std::string& appId, const std::string& id,
                                              const std::string& clientId, QuilSession* session)>;
    int processSimChange(const DestroyChannel& destroyChannel);

    // Takes their client from all sessions: the object service that it was connected to is gone.
    void forgetClients();

    // Lets go of all sessions' kept push connections whose sender hung up
    // (QuilSession::letGoOfDeadPushSockets). Gives how many.
    int letGoOfDeadPushSockets();

    // The ports of all sessions that are registered and have one; without memory for a new list,
    // the one before. The pointers are valid as long as the sessions.
    std::vector<QuilPort*> getAllPorts();

  private:
    QuilSessionManager() = default;

    std::map<std::string, std::unique_ptr<QuilSession>> m_sessions GUARDED_BY(m_lock);
    std::vector<QuilPort*> m_ports GUARDED_BY(m_lock);
    QuilRecursiveMutex m_lock;
};
