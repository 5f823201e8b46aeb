// Everything the agent knows about one provider application: who it is, where its push server is,
// its port and listening socket, the push connections that wait for its answer, and its state.

#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "agent/sessions/port.hpp"
#include "agent/sessions/push_socket.hpp"
#include "agent/sessions/states/base_state.hpp"
#include "agent/support/channel.hpp"
#include "agent/support/locks.hpp"
#include "platform/pps/decoder.hpp"
#include "platform/pps/encoder.hpp"

// Events that processEvent takes.
enum QuilSessionEvent {
    EVENT_CREATE = 1,
    EVENT_DELETE = 2,
    EVENT_REGISTER = 3,
    EVENT_UNREGISTER = 4
};

// Safe on any thread: every field is guarded by the session's own lock, the push sockets by a
// further one taken inside it. Nothing here calls back into the session manager. The session owns
// its state and its push sockets.
class QuilSession {
  public:
    // A session without client, port and state.
    explicit QuilSession(const std::string& providerAppId);
    // A new session, in state Idle, without a port.
    QuilSession(const std::string& providerAppId, const std::string& clientId);
    // A saved session, read from the decoder's present object. Listens on its port at once; in
    // state Terminate with the same SIM, else SimChange.
    QuilSession(pps_decoder_t* decoder, bool sameSim);
    // Stops listening. Push connections that still wait stay open, on purpose: their senders learn
    // the application's fate from their own time-out, not from a close that would read as a
    // rejection.
    virtual ~QuilSession();
    QuilSession(const QuilSession&) = delete;
    QuilSession& operator=(const QuilSession&) = delete;

    // Connection id of the application's present client, "" for none. Not saved.
    std::string getClientObjectId() const;
    // A client id that is not empty also lets the event loop watch the port again.
    void setClientObjectId(const std::string& clientId);
    std::string getPpgUrl() const;
    void setPpgUrl(const std::string& url);
    std::string getLaunchString() const;
    void setLaunchString(const std::string& launchString);
    std::string getToken() const;
    void setToken(const std::string& token);
    std::string getProviderAppId() const { return m_port.getName(); }

    // Stays the session's; valid as long as the session is.
    QuilPort& getPort() { return m_port; }
    const QuilPort& getPort() const { return m_port; }

    // Installs a state and gives back the one before; for QuilBaseState::changeState alone.
    std::unique_ptr<QuilBaseState> setState(std::unique_ptr<QuilBaseState> next);
    // Moves straight to `next`, whatever the present state thinks of it, with the one line of a
    // transition.
    void enterState(std::unique_ptr<QuilBaseState> next);
    // Sends an event (QuilSessionEvent) to the state. Other numbers, and a session without a state:
    // nothing.
    void processEvent(int event);

    // Type number of the state (QuilStateType), STATE_NONE without one.
    int getStateType() const;
    bool isCreated() const;
    bool isDeleted() const;
    bool isRegistered() const;  // in Register, Terminate or SimChange
    bool isTerminated() const;
    bool isSimChanged() const;
    bool hasPort() const { return m_port.getPort() > 0; }
    // All of it as of one moment, also while the handler thread changes the channel.
    QuilChannel getChannel() const;

    // Opens the listening socket when there is a port and the socket is exactly -1; else does
    // nothing. A failure leaves the socket at -1.
    void listenOnPort();
    // Takes a port that was learnt anew and listens on it. A socket that is still open on another
    // port is closed first; one on the same port goes on listening.
    void listenOn(int port);
    // Closes the listening socket and forgets the port. Does nothing in state Terminate.
    void stopListenOnPort();
    // Accepts a connection on the listening socket, without waiting. The descriptor, which the
    // caller owns, or -1 with errno; errno is 0 when the session does not listen.
    int acceptOnPort();

    // How many channels have been asked for so far. A deregistration remembers the number of its
    // moment, so that it does not end a channel that was asked for after it.
    int getChannelRequests() const;
    void countChannelRequest();
    // Whether a channel has been asked for since there were `channelRequests` of them.
    bool hasNewerChannelThan(int channelRequests) const;
    // Ends the channel: the state Delete, and no listening any more. Does nothing when a newer one
    // has been asked for. Gives whether it did.
    bool endChannel(int channelRequests);

    // Keeps an accepted connection under a push id and takes ownership of the descriptor. 1 when
    // stored. 0 when not: with a descriptor below 1, which is left alone; or when the id is already
    // held: the kept one wins, and the new descriptor is closed, unless the kept one's sender has
    // hung up. Lets go of the oldest one beyond the bound.
    int addPushSocket(const std::string& pushId, int socket);
    // Closes the kept connections whose sender hung up, each at the earliest "push-timeout" after
    // that: a sender may close its writing half and wait for the answer. Gives how many.
    int letGoOfDeadPushSockets();
    // The connection kept under the id, or null. Shared, so that it stays open for as long as the
    // caller uses it.
    std::shared_ptr<QuilPushSocket> getPushSocket(const std::string& pushId) const;
    // Closes and forgets the connection kept under the id.
    void deletePushSocket(const std::string& pushId);
    int countPushSockets() const { return m_pushSocketCount; }
    // Forgets the connection kept under the id without closing it: the caller owns it again. False
    // when it is not `socket` that is kept there, which then belongs to nobody any more.
    bool giveBackPushSocket(const std::string& pushId, int socket);
    // The application's answer: writes the acknowledgement when `sendAck`, then closes the
    // connection.
    void acknowledgePush(const std::string& pushId, bool sendAck);

    // Adds the session's saved fields as one object to the array that is open in the encoder.
    void save(pps_encoder_t* encoder) const;

  private:
    void resetPort();

    mutable QuilRecursiveMutex m_lock;
    std::string m_clientId GUARDED_BY(m_lock);
    std::string m_ppgUrl GUARDED_BY(m_lock);
    QuilPort m_port;  // written under m_lock
    std::string m_launchString GUARDED_BY(m_lock);
    std::string m_token GUARDED_BY(m_lock);
    std::unique_ptr<QuilBaseState> m_state GUARDED_BY(m_lock);
    int m_channelRequests GUARDED_BY(m_lock) = 0;
    struct KeptPushSocket {
        std::shared_ptr<QuilPushSocket> socket;
        std::uint64_t number;  // in the order of their coming
    };
    using PushSockets = std::map<std::string, KeptPushSocket>;

    PushSockets::iterator erasePushSocket(PushSockets::iterator kept) REQUIRES(m_pushSocketLock);
    void makeRoomForPushSocket(const std::string& pushId) REQUIRES(m_pushSocketLock);
    void giveUpOldest() REQUIRES(m_pushSocketLock);

    PushSockets m_pushSockets GUARDED_BY(m_pushSocketLock);
    std::map<std::uint64_t, PushSockets::iterator> m_pushSocketsByAge GUARDED_BY(m_pushSocketLock);
    std::uint64_t m_lastPushSocketNumber GUARDED_BY(m_pushSocketLock) = 0;
    // Size of the map, for lines that are logged without its lock.
    std::atomic<int> m_pushSocketCount{0};
    // Taken while m_lock is held, so that it is never held when resetPort makes it anew.
    mutable QuilMutex m_pushSocketLock;
};
