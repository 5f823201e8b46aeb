// A reply carries "err" or "dat", never both: a failure leaves out the data, whatever the message
// would have to say.

#include "agent/clients/client_reply.hpp"

#include <cerrno>

#include "agent/clients/client_object.hpp"
#include "agent/support/log.hpp"
#include "agent/support/service_life.hpp"
#include "platform/pps/encoder.hpp"

namespace {

// Adds "err" or "dat". False when the reply is not to be written.
bool addResult(pps_encoder_t* encoder, const QuilBaseMessage& message) {
    if (message.hasError()) {
        pps_encoder_add_int(encoder, "err", message.getErrorCode());
        return true;
    }
    if (!message.hasData()) {
        return true;
    }
    pps_encoder_start_object(encoder, "dat");
    const bool isToBeWritten = message.addData(encoder);
    pps_encoder_end_object(encoder);
    return isToBeWritten;
}

// The object service answers with these alone while it lives and cannot take a message.
bool isServiceGone(int error) {
    return error != ENOBUFS && error != EMSGSIZE && error != EDQUOT && error != ENOMEM;
}

}  // namespace

SendResult sendMessage(std::unique_ptr<QuilBaseMessage> message) {
    if (message == nullptr) {
        return SendResult::Written;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "sendMessage: Callback [%s] for client id[%s] err[%d] has data[%d]",
             message->getCallbackName().c_str(), message->getClientId().c_str(),
             message->getErrorCode(), message->hasData() ? 1 : 0);
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, message->getClientId().c_str());
    if (!message->getCallbackName().empty()) {
        pps_encoder_add_string(&encoder, "msg", message->getCallbackName());
    }
    pps_encoder_add_string(&encoder, "id", message->getId());
    const bool isToBeWritten = addResult(&encoder, *message);
    pps_encoder_end_object(&encoder);
    SendResult result = SendResult::Written;
    if (isToBeWritten) {
        // Who is addressed by no id is whoever is there now.
        const int life = message->getClientId().empty() ? serviceLife() : message->getLife();
        const ssize_t written =
            writeToClients(pps_encoder_buffer(&encoder), pps_encoder_length(&encoder), life);
        if (written == -1) {
            result = isServiceGone(errno) ? SendResult::ServiceGone : SendResult::Refused;
        }
        QUIL_LOG(LOG_LEVEL_INFO, "Wrote %d bytes to pps.", static_cast<int>(written));
    }
    pps_encoder_cleanup(&encoder);
    return result;
}
