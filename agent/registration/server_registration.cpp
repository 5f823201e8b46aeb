// A server that wants two steps answers the first request with "param=..."; the whole of that
// answer goes behind the same URL for the second. Only the second answer can bring a port.

#include "agent/registration/server_registration.hpp"

#include <algorithm>
#include <cstring>

#include "agent/configuration/config_manager.hpp"
#include "agent/registration/http.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/decimal.hpp"
#include "agent/support/log.hpp"

namespace {

constexpr const char* kRegisterPath = "/mss/PD_subReg?serviceid=";
constexpr const char* kDeregisterPath = "/mss/PD_subDereg?serviceid=";
constexpr const char* kPortHeader = "vex-device-ovra-port";
constexpr std::uint32_t kLongestAnswerBytes = 8191;
constexpr long kHttpOk = 200;
constexpr int kHttpUrlMalformed = 3;  // libcurl's code for it

// Return codes of the server that mean success.
constexpr int kServerAccepted = 200;
constexpr int kServerAlreadyRegistered = 10003;  // counts for a registration only

// The body as a text, which ends at its first zero byte, if any. No response counts as an empty
// one.
std::string bodyText(const HttpResponse* response) {
    const char* text = response == nullptr ? nullptr : response->body;
    std::uint32_t length = response == nullptr ? 0 : response->bodyLength;
    httpStrip(&text, &length);
    length = std::min(length, kLongestAnswerBytes);
    QUIL_LOG(LOG_LEVEL_DEBUG, "Len of response [%d]", static_cast<int>(length));
    return length == 0 ? "" : std::string(text, strnlen(text, length));
}

void readPort(const HttpResponse* response, int* port) {
    if (response == nullptr) {
        return;
    }
    const HttpHeaderField* field =
        httpFindHeader(kPortHeader, response->headers, response->headerCount);
    if (field != nullptr) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "Port response %s\n", field->value);
        *port = leadingDecimalAfterBlanks(field->value);
    }
}

// Gives the session its new port and opens it.
void openPort(QuilServerRegMessage& message, int port) {
    const std::string appId = message.getName();
    QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "Session not found for app id [%s]", appId.c_str());
        message.setErrorCode(RESULT_NO_SESSION);
        return;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "processServerRegister: app id [%s] port [%d]", appId.c_str(),
             session->getPort().getPort());
    QUIL_LOG(LOG_LEVEL_DEBUG, "processServerRegister: Opening port %d\n", port);
    // Registered twice in a row, it may still be listening on the port of the first time.
    session->listenOn(port);
}

}  // namespace

void createUrl(const QuilServerRegMessage& message, std::string* url) {
    *url = message.getPpgUrl();
    *url += message.isRegister() ? kRegisterPath : kDeregisterPath;
    *url += message.getName();
    if (message.isRegister()) {
        QuilConfigManager* config = QuilConfigManager::getInstance();
        *url += "&osversion=" + config->getOsVersion();
        *url += "&model=" + config->getDeviceModel();
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "server_registration: url [%s]", url->c_str());
}

int prepareServerRequest(QuilServerRegMessage& message, std::string* url) {
    const std::string appId = message.getName();
    const QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
    if (session == nullptr) {
        QUIL_LOG(LOG_LEVEL_WARNING, "processServerRegister: provider App Id[%s] not found",
                 appId.c_str());
        message.setErrorCode(RESULT_NO_SESSION);
        return -1;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "processServerRegister: appid [%s] port [%d]\n", appId.c_str(),
             session->getPort().getPort());
    QUIL_LOG(LOG_LEVEL_DEBUG, "calling create url....");
    createUrl(message, url);
    return 0;
}

int processRequest(const std::string& url, std::string* response, int* port) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "processRequest: url[%s]...1", url.c_str());
    long status = 0;
    HttpResponse* answer = nullptr;
    // libcurl would ask for what stands in front of a zero byte, which is something else.
    const bool isWhole = url.find('\0') == std::string::npos;
    const int result = isWhole ? httpGet(url.c_str(), &status, &answer) : kHttpUrlMalformed;
    const HttpResponsePointer owner(answer);
    QUIL_LOG(LOG_LEVEL_DEBUG, "processRequest: rc [%d] http_status [%lu]", result,
             static_cast<unsigned long>(status));
    if (result != 0 || status != kHttpOk) {
        QUIL_LOG(LOG_LEVEL_INFO, "HTTP Transport failure: rc [%d] HTTP Status[%lu] url[%s]", result,
                 static_cast<unsigned long>(status), url.c_str());
        return RESULT_SERVER_UNREACHABLE;
    }
    *response = bodyText(answer);
    if (port != nullptr) {
        readPort(answer, port);
    }
    return 0;
}

int getReturnCode(QuilServerRegMessage& message, const std::string& text, int errorCode) {
    // Anywhere in the text, also at the end of a longer word: servers have always been read this
    // way.
    const std::size_t found = text.find("rc=");
    if (found == std::string::npos) {
        QUIL_LOG(LOG_LEVEL_ERROR,
                 "processServerRegister: appId[%s] subcribe URL OVRA server rejected registration. "
                 "Details: response code [%s]",
                 message.getName().c_str(), text.c_str());
        message.setErrorCode(errorCode);
        return -1;
    }
    const std::string value = text.substr(found + 3);
    QUIL_LOG(LOG_LEVEL_DEBUG, "RC_VALUE [%s]", value.c_str());
    const int code = leadingDecimal(value);
    QUIL_LOG(LOG_LEVEL_DEBUG, "getReturnCode: Response Code [%d]", code);
    return code;
}

int processServerSubscribe(QuilServerRegMessage& message, int* port) {
    std::string url;
    const int prepared = prepareServerRequest(message, &url);
    QUIL_LOG(LOG_LEVEL_DEBUG, "processServerSubscribe 1: url[%s] ret_val[%d]", url.c_str(),
             prepared);
    if (prepared == -1) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "return now!!!");
        return -1;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "processing the response from the first subscribe...");
    std::string response;
    int result = processRequest(url, &response, nullptr);
    QUIL_LOG(LOG_LEVEL_DEBUG, "1: after processRequest: http_rc[%d] response[%s]", result,
             response.c_str());
    if (result != 0) {
        QUIL_LOG(
            LOG_LEVEL_ERROR,
            "processServerRegister: Initial OVRA registration failed appId[%s] subcribe URL[%s]",
            message.getName().c_str(), url.c_str());
        message.setErrorCode(result);
        return -1;
    }
    if (response.find("param=") == std::string::npos) {
        const int code = getReturnCode(message, response, RESULT_NO_CODE_IN_FIRST_ANSWER);
        if (code != -1) {
            // Also a good code: a one-step answer has no port, so the channel is not usable.
            message.setErrorCode(code);
        }
        return -1;
    }
    url += "&" + response;
    QUIL_LOG(LOG_LEVEL_DEBUG, "processServerSubscribe 2: url[%s]", url.c_str());
    response.clear();
    // Its own failure is not looked at: it leaves the text empty, which is a missing code.
    result = processRequest(url, &response, port);
    QUIL_LOG(LOG_LEVEL_DEBUG, "2: http_rc [%d] response: [%s]", result, response.c_str());
    return getReturnCode(message, response, RESULT_NO_CODE_IN_SECOND_ANSWER);
}

void processServerRegister(QuilServerRegMessage& message) {
    int port = 0;
    const int code = processServerSubscribe(message, &port);
    if (code == -1 || code == 0) {
        return;
    }
    if (code != kServerAccepted && code != kServerAlreadyRegistered) {
        QUIL_LOG(LOG_LEVEL_INFO,
                 "OVRA server rejected registration. app id [%s] ppgUrl [%s] Details: response "
                 "code[%d]",
                 message.getName().c_str(), message.getPpgUrl().c_str(), code);
        message.setErrorCode(code);
        return;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "OVRA registration is successful\n");
    if (port < 1) {
        message.setErrorCode(RESULT_INVALID_PORT);
        QUIL_LOG(LOG_LEVEL_WARNING, "OVRA registration failed. Invalid port received");
        return;
    }
    openPort(message, port);
}

void processServerDeregister(QuilServerRegMessage& message) {
    const int code = processServerSubscribe(message, nullptr);
    QUIL_LOG(LOG_LEVEL_INFO, "processServerDeregister: app_id[%s] ppgUrl[%s] rc [%d]",
             message.getName().c_str(), message.getPpgUrl().c_str(), code);
    if (code != -1 && code != 0 && code != kServerAccepted) {
        message.setErrorCode(code);
    }
}
