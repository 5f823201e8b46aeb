// A request is one object: its name is the connection id of the client, "msg" says what is asked,
// "id" is the client's own number for it, and "dat" holds the rest. Whatever is missing or of the
// wrong type counts as empty; each operation says what it does about that.

#include "agent/requests/request_reader.hpp"

#include <unistd.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/clients/client_object.hpp"
#include "agent/messages/enqueue.hpp"
#include "agent/pushes/push_answer.hpp"
#include "agent/requests/permissions.hpp"
#include "agent/requests/session_requests.hpp"
#include "agent/support/decoder_string.hpp"
#include "agent/support/log.hpp"
#include "platform/pps/decoder.hpp"
#include "platform/root/root.hpp"
#include "platform/rules/rules.hpp"

namespace {

// One read asks for all of it, so a message of this size fills it to the last byte.
constexpr std::size_t kRequestBytes = 8192;

// Main thread only. The byte behind the request is zero, for which there is always room.
std::array<char, kRequestBytes + 1> g_request{};

constexpr const char* kQueryChannel = "queryChannel";

struct Request {
    std::string clientId;
    std::string name;
    std::string id;
    std::string appId;
};

void createSession(const Request& request, pps_decoder_t& /*dat*/) {
    QUIL_LOG(LOG_LEVEL_INFO, "createSession Called!");
    quilCreateSession(request.appId, request.id, request.clientId);
}

void createChannel(const Request& request, pps_decoder_t& dat) {
    const std::string url = readString(&dat, "ppgUrl");
    QUIL_LOG(LOG_LEVEL_INFO, "createChannel Called. ppgUrl is [%s]", url.c_str());
    quilCreateChannel(request.appId, request.id, request.clientId, url);
}

void destroyChannel(const Request& request, pps_decoder_t& /*dat*/) {
    quilDestroyChannel(request.appId, request.id, request.clientId, nullptr);
}

void registerToLaunch(const Request& request, pps_decoder_t& dat) {
    const std::string launchString = readString(&dat, "launchString");
    QUIL_LOG(LOG_LEVEL_INFO, "registerToLaunch Called. launch string is [%s]",
             launchString.c_str());
    quilRegisterToLaunch(request.appId, request.id, request.clientId, launchString);
}

void unregisterFromLaunch(const Request& request, pps_decoder_t& /*dat*/) {
    QUIL_LOG(LOG_LEVEL_INFO, "%s Called.", request.name.c_str());
    quilUnregisterToLaunch(request.appId, request.id, request.clientId);
}

void acceptPush(const Request& request, pps_decoder_t& /*dat*/) {
    QUIL_LOG(LOG_LEVEL_INFO, "%s called and Push id [%s].", request.name.c_str(),
             request.id.c_str());
    quilAccept(request.appId, request.id, request.clientId);
}

void rejectPush(const Request& request, pps_decoder_t& /*dat*/) {
    QUIL_LOG(LOG_LEVEL_INFO, "%s called and Push id [%s].", request.name.c_str(),
             request.id.c_str());
    quilRejectPush(request.appId, request.id, request.clientId);
}

void queryChannel(const Request& request, pps_decoder_t& /*dat*/) {
    QUIL_LOG(LOG_LEVEL_INFO, "%s Called.", request.name.c_str());
    quilQueryChannel(request.appId, request.id, request.clientId);
}

// What somebody hears who may not act for the application: what is heard for one without a session.
// Queued replies are queued for no application: in the order of another's own messages they would
// wait for its push server, take its room, and pass for its answer to "createSession".
void refuseQueued(int type, const Request& request) {
    addReplyMessage(RESULT_NO_SESSION, type, "", request.id, request.clientId);
}

void refuseCreateSession(const Request& request) {
    refuseQueued(MESSAGE_CREATE_SESSION_COMPLETE, request);
}

void refuseCreateChannel(const Request& request) {
    refuseQueued(MESSAGE_CREATE_CHANNEL_COMPLETE, request);
}

void refuseDestroyChannel(const Request& request) {
    quilRefuseDestroyChannel(request.appId, request.id, request.clientId);
}

void refuseQueryChannel(const Request& request) {
    quilRefuseQueryChannel(request.appId, request.id, request.clientId);
}

void refuseLaunch(const Request& request) {
    refuseQueued(MESSAGE_RESPONSE, request);
}

void refuseSilently(const Request& /*request*/) {}

struct Operation {
    const char* name;
    void (*run)(const Request& request, pps_decoder_t& dat);
    void (*refuse)(const Request& request);
};

constexpr Operation kOperations[] = {
    {"createSession", createSession, refuseCreateSession},
    {"createChannel", createChannel, refuseCreateChannel},
    {"destroyChannel", destroyChannel, refuseDestroyChannel},
    {"registerToLaunch", registerToLaunch, refuseLaunch},
    {"unregisterFromLaunch", unregisterFromLaunch, refuseLaunch},
    {"acceptPush", acceptPush, refuseSilently},
    {"rejectPush", rejectPush, refuseSilently},
    {kQueryChannel, queryChannel, refuseQueryChannel},
};

// Null for a name that is none of a request.
const Operation* findOperation(const std::string& name) {
    for (const Operation& operation : kOperations) {
        if (name == operation.name) {
            return &operation;
        }
    }
    return nullptr;
}

bool mayAct(const Request& request) {
    QuilPermissions& permissions = *QuilPermissions::getInstance();
    if (permissions.mayAct(request.clientId, request.appId)) {
        return true;
    }
    QUIL_LOG(LOG_LEVEL_WARNING, "User [%s] may not act for app id [%s]: [%s] refused.",
             permissions.describeUser(request.clientId).c_str(), request.appId.c_str(),
             request.name.c_str());
    return false;
}

void dispatch(const Request& request, pps_decoder_t& dat) {
    const Operation* operation = findOperation(request.name);
    if (!mayAct(request)) {
        // Of an unknown name nothing is queued either, where it would stand among the application's
        // own messages: nobody gets that reply.
        if (operation != nullptr) {
            operation->refuse(request);
        }
    } else if (operation != nullptr) {
        operation->run(request, dat);
    } else {
        QUIL_LOG(LOG_LEVEL_WARNING, "Unexpected client message received: %s", request.name.c_str());
        addReplyMessage(RESULT_UNKNOWN_REQUEST, MESSAGE_UNKNOWN_REQUEST, request.appId, request.id,
                        request.clientId);
    }
}

// Without an application there is nobody to wait for, so the question about a channel is answered
// here too as always; for all others the queue decides.
void refuseWithoutApplication(const Request& request) {
    if (request.name == kQueryChannel) {
        refuseQueryChannel(request);
        return;
    }
    addErrorReply(RESULT_NO_APPLICATION_ID, request.name, request.appId, request.id,
                  request.clientId);
}

// A client came or went. Sessions outlive their clients, so nothing follows from it for them.
void logConnectionChange(const pps_decoder_t& decoder, const std::string& clientId) {
    const unsigned flags = pps_decoder_flags(&decoder);
    if ((flags & PPS_FLAG_DELETED) != 0) {
        QUIL_LOG(LOG_LEVEL_INFO, "PPS_DELETE: removed client id [%s] return code [%d]",
                 clientId.c_str(), 1);
    } else if ((flags & PPS_FLAG_CREATED) != 0) {
        QUIL_LOG(LOG_LEVEL_INFO, "----------------- PPS_CREATED------------------------------");
    }
}

// A user's or group's number in the notice of a connection.
std::optional<std::uint32_t> readAccount(const pps_decoder_t& decoder, const char* name) {
    std::string attribute;
    std::string value;
    for (int i = 0;; ++i) {
        const pps_decoder_error_t result = pps_decoder_get_at(&decoder, i, &attribute, &value);
        if (result == PPS_DECODER_ABSENT) {
            return std::nullopt;
        }
        if (result == PPS_DECODER_OK && attribute == name) {
            return accountNumber(value);
        }
    }
}

// Keeps in mind whose connection it is, as long as it lasts. The decoder stands in the notice.
void noteConnectionChange(const pps_decoder_t& decoder, const std::string& clientId) {
    const unsigned flags = pps_decoder_flags(&decoder);
    if (flags == 0) {
        return;
    }
    QuilPermissions& permissions = *QuilPermissions::getInstance();
    permissions.removeConnection(clientId);
    const std::optional<std::uint32_t> user = readAccount(decoder, "uid");
    const std::optional<std::uint32_t> group = readAccount(decoder, "gid");
    if ((flags & PPS_FLAG_CREATED) != 0 && user && group) {
        permissions.addConnection(clientId, *user, *group);
    }
}

}  // namespace

int clientPPSMessageGet() {
    QUIL_LOG(LOG_LEVEL_INFO, "clientIf_getMsg - Reading incoming IPC request.");
    const int count = static_cast<int>(read(clientDescriptor(), g_request.data(), kRequestBytes));
    if (count == -1) {
        QUIL_LOG(LOG_LEVEL_WARNING, "clientPPSMessageGet: Unable to read push PPS object.");
        return -1;
    }
    g_request[static_cast<std::size_t>(count)] = '\0';
    QUIL_LOG(LOG_LEVEL_DEBUG, "clientPPSMessageGet: len %d recv: << %s >>", count,
             g_request.data());
    clientProcessRequest(g_request.data());
    return count;
}

void clientProcessRequest(const char* text) {
    pps_decoder_t decoder;
    // Damage is not reported as such: what could not be decoded counts as empty.
    pps_decoder_initialize(&decoder, text);
    Request request;
    request.clientId = pps_decoder_name(&decoder);
    QUIL_LOG(LOG_LEVEL_DEBUG, "client id (connection id) %s", request.clientId.c_str());
    logConnectionChange(decoder, request.clientId);

    pps_decoder_push(&decoder, nullptr);
    noteConnectionChange(decoder, request.clientId);
    request.name = readString(&decoder, "msg");
    QUIL_LOG(LOG_LEVEL_DEBUG, "msg [%s]", request.name.c_str());
    if (request.name.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING, "Empty message received from [%s].", request.clientId.c_str());
        pps_decoder_cleanup(&decoder);
        return;
    }
    request.id = readString(&decoder, "id");
    QUIL_LOG(LOG_LEVEL_DEBUG, "id [%s].", request.id.c_str());
    pps_decoder_push(&decoder, "dat");
    request.appId = readString(&decoder, "providerApplicationId");
    if (request.appId.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING, "provider id not found!");
        pps_decoder_cleanup(&decoder);
        refuseWithoutApplication(request);
        return;
    }
    dispatch(request, decoder);
    pps_decoder_cleanup(&decoder);
}
