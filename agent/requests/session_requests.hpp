// What each session request of an application does. Main thread only.
//
// Every operation gets the provider application id, the request id and the client id of the
// request. Slow work and replies are queued for the message handler thread; the failures of
// quilDestroyChannel and the answers of quilQueryChannel alone are given at once. Queued replies
// for an application without a session reach it with code 500, whatever was queued.

#pragma once

#include <string>

class QuilSession;

// Makes the application's session, or gives an existing one the new client. Replies 0, or 500 when
// that failed.
void quilCreateSession(const std::string& appId, const std::string& id,
                       const std::string& clientId);

// Queues the registration of the application's channel with the push data server at ppgUrl. A
// channel that is registered already is given up first, and registered from scratch. Without a
// session (10100) or with an empty ppgUrl (10102) only the reply is queued.
void quilCreateChannel(const std::string& appId, const std::string& id, const std::string& clientId,
                       const std::string& ppgUrl);

// Queues the deregistration of the application's channel. `session` is null for a request of the
// application's own; the pass over the sessions of another SIM gives the one that it is at. Answers
// at once 10100 (no session), 10106 (never registered) and 10004 (any other state).
void quilDestroyChannel(const std::string& appId, const std::string& id,
                        const std::string& clientId, QuilSession* session);

// Answers 10100 at once, as for an application without a session.
void quilRefuseDestroyChannel(const std::string& appId, const std::string& id,
                              const std::string& clientId);

// Answers at once how the application's channel stands (QuilChannel), or 10100 without a session.
// Changes nothing.
void quilQueryChannel(const std::string& appId, const std::string& id, const std::string& clientId);

// Answers 10100 at once, as for an application without a session.
void quilRefuseQueryChannel(const std::string& appId, const std::string& id,
                            const std::string& clientId);

// Stores what the system is to launch for a push. Replies 0, 10101 (empty launchString) or 10100.
void quilRegisterToLaunch(const std::string& appId, const std::string& id,
                          const std::string& clientId, const std::string& launchString);

// Clears it. Replies 0 or 10100.
void quilUnregisterToLaunch(const std::string& appId, const std::string& id,
                            const std::string& clientId);
