// What all messages share.

#include "agent/messages/base_message.hpp"

#include <utility>

QuilBaseMessage::QuilBaseMessage(const std::string& appId, std::string id, std::string clientId)
    : QuilBaseObject(appId), m_id(std::move(id)), m_clientId(std::move(clientId)) {}

bool QuilBaseMessage::addData(pps_encoder_t* /*encoder*/) const {
    return true;
}

void QuilBaseMessage::setErrorCode(int code) {
    if (m_errorCode == RESULT_OK) {
        m_errorCode = code;
    }
}
