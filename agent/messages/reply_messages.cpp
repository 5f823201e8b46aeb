// Each class is its callback name, its type and what it adds to "dat".

#include "agent/messages/reply_messages.hpp"

QuilCreateSessionCompleteMessage::QuilCreateSessionCompleteMessage(const std::string& appId,
                                                                   const std::string& id,
                                                                   const std::string& clientId)
    : QuilBaseMessage(appId, id, clientId) {
    setCallbackName("onCreateSessionComplete");
    setMessageType(MESSAGE_CREATE_SESSION_COMPLETE);
}

QuilCreateChannelCompleteMessage::QuilCreateChannelCompleteMessage(const std::string& appId,
                                                                   const std::string& id,
                                                                   const std::string& clientId)
    : QuilBaseMessage(appId, id, clientId) {
    setCallbackName("onCreateChannelComplete");
    setMessageType(MESSAGE_CREATE_CHANNEL_COMPLETE);
}

bool QuilCreateChannelCompleteMessage::addData(pps_encoder_t* encoder) const {
    pps_encoder_add_string(encoder, "token", m_token);
    return true;
}

QuilDestroyChannelCompleteMessage::QuilDestroyChannelCompleteMessage(const std::string& appId,
                                                                     const std::string& id,
                                                                     const std::string& clientId)
    : QuilBaseMessage(appId, id, clientId) {
    setCallbackName("onDestroyChannelComplete");
    setMessageType(MESSAGE_DESTROY_CHANNEL_COMPLETE);
}

QuilQueryChannelCompleteMessage::QuilQueryChannelCompleteMessage(const std::string& appId,
                                                                 const std::string& id,
                                                                 const std::string& clientId)
    : QuilBaseMessage(appId, id, clientId) {
    setCallbackName("onQueryChannelComplete");
}

bool QuilQueryChannelCompleteMessage::addData(pps_encoder_t* encoder) const {
    pps_encoder_add_int(encoder, "registered", m_channel.isRegistered ? 1 : 0);
    pps_encoder_add_int(encoder, "listening", m_channel.isListening ? 1 : 0);
    pps_encoder_add_int(encoder, "port", m_channel.port);
    pps_encoder_add_string(encoder, "token", m_channel.token);
    pps_encoder_add_string(encoder, "ppgUrl", m_channel.ppgUrl);
    return true;
}

QuilResponseMessage::QuilResponseMessage(const std::string& appId, const std::string& id,
                                         const std::string& clientId)
    : QuilBaseMessage(appId, id, clientId) {
    setMessageType(MESSAGE_RESPONSE);
}

QuilServerRegMessage::QuilServerRegMessage(const std::string& appId, const std::string& id,
                                           const std::string& clientId, const std::string& ppgUrl)
    : QuilBaseMessage(appId, id, clientId) {
    setMessageType(MESSAGE_SERVER_REGISTER);
    setArgument(ppgUrl);
}
