// An internal message: the result of an operation, on its way from where it was produced to where a
// reply to the application is written.

#pragma once

#include <string>

#include "agent/support/base_object.hpp"
#include "agent/support/service_life.hpp"
#include "platform/pps/encoder.hpp"

// The numbers by which messages and queue nodes are dispatched.
enum QuilMessageType {
    MESSAGE_NONE = 0,
    MESSAGE_CREATE_SESSION_COMPLETE = 1,
    MESSAGE_CREATE_CHANNEL_COMPLETE = 2,
    MESSAGE_DESTROY_CHANNEL_COMPLETE = 3,
    MESSAGE_RESPONSE = 4,
    MESSAGE_PUSH = 5,
    MESSAGE_SERVER_REGISTER = 7,
    MESSAGE_SERVER_DEREGISTER = 8,
    MESSAGE_SIM_CHANGE_RESPONSE = 9,
    MESSAGE_UNKNOWN_REQUEST = 10
};

// Result codes of messages, which applications receive in "err". 0 is success. A push data server's
// own codes are passed on beside these.
enum QuilResultCode {
    RESULT_OK = 0,
    RESULT_INTERNAL_FAILURE = 500,     // session not added, or gone when its reply was due
    RESULT_NO_APPLICATION_ID = 10002,  // request without "providerApplicationId"
    RESULT_WRONG_STATE = 10004,  // "destroyChannel": neither in the create state nor registered
    RESULT_NO_SESSION = 10100,   // no session for the application id
    RESULT_EMPTY_LAUNCH_STRING = 10101,  // "registerToLaunch" with an empty "launchString"
    RESULT_EMPTY_PPG_URL = 10102,        // "createChannel" with an empty "ppgUrl"
    RESULT_SERVER_UNREACHABLE = 10103,   // first request failed, or its HTTP status was not 200
    RESULT_UNKNOWN_REQUEST = 10104,      // unknown request name
    RESULT_NOT_REGISTERED = 10106,       // "destroyChannel" on a session that never registered
    RESULT_INVALID_PORT = 10107,         // accepted by the server, but without a usable port
    RESULT_NO_CODE_IN_SECOND_ANSWER = 10108,
    RESULT_PUSH_NOT_ENCODABLE = 10109,  // push without a data part, or larger than can be handed on
    RESULT_NO_CODE_IN_FIRST_ANSWER = 10110
};

// Belongs to one owner and one thread at a time.
class QuilBaseMessage : public QuilBaseObject {
  public:
    // The name of a message is the provider application id.
    QuilBaseMessage(const std::string& appId, std::string id, std::string clientId);
    ~QuilBaseMessage() override = default;
    QuilBaseMessage(const QuilBaseMessage&) = default;
    QuilBaseMessage& operator=(const QuilBaseMessage&) = default;

    // Whether the reply carries "err".
    virtual bool hasError() const { return m_errorCode > 0; }
    // Whether the reply carries "dat".
    virtual bool hasData() const { return true; }
    // Adds the message's own attributes to the "dat" that is open in the encoder. False when the
    // reply is not to be written.
    virtual bool addData(pps_encoder_t* encoder) const;

    // What the reply says in "msg"; a reply with an empty one has no "msg".
    const std::string& getCallbackName() const { return m_callbackName; }
    void setCallbackName(const std::string& name) { m_callbackName = name; }

    int getMessageType() const { return m_messageType; }
    void setMessageType(int type) { m_messageType = type; }

    // The request id, or of a push its push id.
    const std::string& getId() const { return m_id; }
    void setId(const std::string& id) { m_id = id; }

    const std::string& getClientId() const { return m_clientId; }
    void setClientId(const std::string& clientId) { m_clientId = clientId; }

    // Life of the object service (support/service_life.hpp) that the client id belongs to: the one
    // in which the message was made, unless it is set.
    int getLife() const { return m_life; }
    void setLife(int life) { m_life = life; }

    // What a request carries beside application, id and client; of a channel registration, its
    // ppgUrl.
    const std::string& getArgument() const { return m_argument; }
    void setArgument(const std::string& argument) { m_argument = argument; }

    int getErrorCode() const { return m_errorCode; }
    // Stores a code only while there is none: the first failure recorded is the one that is
    // reported.
    void setErrorCode(int code);
    // Stores a code whatever there was; for the places where the answer itself is decided.
    void overwriteErrorCode(int code) { m_errorCode = code; }

  private:
    std::string m_callbackName;
    int m_messageType = MESSAGE_NONE;
    std::string m_id;
    std::string m_clientId;
    std::string m_argument;
    int m_errorCode = RESULT_OK;
    int m_life = serviceLife();
};
