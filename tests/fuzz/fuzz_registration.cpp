// A push data server that answers anything: the status, the headers and the body of both answers
// are the fuzzer's. What stands between zero bytes is one answer: a number, which is its HTTP
// status, or libcurl's code for a failure when it is below 100; up to the first empty line,
// headers; and a body.

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/registration/http.hpp"
#include "agent/registration/server_registration.hpp"
#include "agent/sessions/session_manager.hpp"
#include "tests/fuzz/agent_folder.hpp"
#include "tests/fuzz/bytes.hpp"

namespace {

constexpr std::size_t kLongestAnswerBytes = 8191;
constexpr int kMostFields = 1000;

std::vector<std::string> g_answers;
std::vector<std::string> g_urls;  // as they were asked for

// libcurl hands over headers line by line, and a body in pieces.
HttpResponse* makeResponse(std::string_view answer) {
    HttpBuffer headers;
    HttpBuffer body;
    httpBufferInit(&headers, sizeof(HttpHeaderField));
    httpBufferInit(&body, 1);
    while (!answer.empty()) {
        const std::size_t length = std::min(answer.find('\n'), answer.size() - 1) + 1;
        require(curlHeaderWrite(answer.data(), 1, length, &headers) == length);
        const bool isLast = answer[0] == '\n';
        answer.remove_prefix(length);
        if (isLast) {
            break;
        }
    }
    const std::size_t half = answer.size() / 2;
    require(curlBodyWrite(answer.data(), 1, half, &body) == half);
    require(curlBodyWrite(answer.data() + half, answer.size() - half, 1, &body) ==
            answer.size() - half);
    require(body.count == answer.size());
    auto* response = static_cast<HttpResponse*>(std::malloc(sizeof(HttpResponse)));
    *response = {static_cast<HttpHeaderField*>(headers.data), headers.count,
                 static_cast<char*>(body.data), body.count};
    return response;
}

QuilSession* makeSession() {
    QuilSessionManager::getInstance()->removeAll();
    auto session = std::make_unique<QuilSession>("app", "@ipc.1");
    QuilSessionManager::getInstance()->addSession(session);
    return QuilSessionManager::getInstance()->getSessionByAppId("app");
}

// ---- the same, read plainly

bool isBlank(char byte) {
    return std::strchr(" \t\n\v\f\r", byte) != nullptr && byte != '\0';
}

std::string strip(std::string text) {
    while (!text.empty() && isBlank(text.front())) {
        text.erase(0, 1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.pop_back();
    }
    return text;
}

int numberAt(const std::string& text, std::size_t at) {
    long long number = 0;
    for (; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])) != 0; ++at) {
        number = std::min<long long>(number * 10 + (text[at] - '0'), INT_MAX);
    }
    return static_cast<int>(number);
}

struct Answer {
    bool isGood = false;
    std::string body;
    int port = 0;

    bool has(const char* text) const { return body.find(text) != std::string::npos; }
    int code() const { return numberAt(body, body.find("rc=") + 3); }
};

Answer plainReading(std::size_t index) {
    Answer answer;
    if (index >= g_answers.size()) {
        return answer;
    }
    char* rest = nullptr;
    answer.isGood = std::strtol(g_answers[index].c_str(), &rest, 10) == 200;
    std::string text = rest + (*rest == '\n' ? 1 : 0);
    bool isFound = false;
    int fields = 0;
    while (!text.empty()) {
        const std::string line = text.substr(0, text.find('\n'));
        const bool isLast = text[0] == '\n';
        text.erase(0, line.size() + 1);
        if (isLast) {
            break;
        }
        const std::size_t colon = line.find(':');
        if (colon != std::string::npos && ++fields <= kMostFields && !isFound &&
            strcasecmp(strip(line.substr(0, colon)).c_str(), "vex-device-ovra-port") == 0) {
            isFound = true;
            answer.port = numberAt(strip(line.substr(colon + 1)), 0);
        }
    }
    answer.body = strip(text).substr(0, kLongestAnswerBytes);
    return answer;
}

struct Outcome {
    int code = 0;
    int port = -1;
    int requests = 1;
    bool operator==(const Outcome&) const = default;
};

Outcome expectedOutcome(bool isRegister) {
    const Answer first = plainReading(0);
    if (!first.isGood) {
        return {RESULT_SERVER_UNREACHABLE};
    }
    if (!first.has("param=")) {
        return {first.has("rc=") ? first.code() : RESULT_NO_CODE_IN_FIRST_ANSWER};
    }
    Answer second = plainReading(1);
    second.body = second.isGood ? second.body : "";
    if (!second.has("rc=")) {
        return {RESULT_NO_CODE_IN_SECOND_ANSWER, -1, 2};
    }
    const int code = second.code();
    if (!isRegister || (code != 200 && code != 10003)) {
        return {isRegister || code != 200 ? code : 0, -1, 2};
    }
    return second.port < 1 ? Outcome{RESULT_INVALID_PORT, -1, 2} : Outcome{0, second.port, 2};
}

void checkUrls(const std::string& first) {
    require(g_urls[0] == first);
    require(g_urls.size() == 1 || g_urls[1] == first + "&" + plainReading(0).body);
}

}  // namespace

// In place of the one in agent/registration/http.cpp: the linker is told to.
extern "C" int fuzzHttpGet(const char* url, long* status, HttpResponse** response) __asm__(
    "__wrap__Z7httpGetPKcPlPP12HttpResponse");

extern "C" int fuzzHttpGet(const char* url, long* status, HttpResponse** response) {
    g_urls.emplace_back(url);
    if (g_urls.size() > g_answers.size()) {
        return 7;  // as when nobody listens
    }
    const std::string& answer = g_answers[g_urls.size() - 1];
    char* rest = nullptr;
    const long number = std::strtol(answer.c_str(), &rest, 10);
    if (number > 0 && number < 100) {
        return static_cast<int>(number);
    }
    *status = number;
    *response = makeResponse(rest + (*rest == '\n' ? 1 : 0));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const AgentFolder folder;
    g_answers = splitAtZeros(data, size);
    const QuilSession* session = makeSession();

    g_urls.clear();
    QuilServerRegMessage request("app", "1", "@ipc.1", "http://server");
    processServerRegister(request);
    require(expectedOutcome(true) == Outcome{request.getErrorCode(), session->getPort().getPort(),
                                             static_cast<int>(g_urls.size())});
    checkUrls("http://server/mss/PD_subReg?serviceid=app&osversion=10.3&model=0x87");

    const int port = session->getPort().getPort();
    g_urls.clear();
    QuilServerRegMessage deregistration("app", "2", "@ipc.1", "http://server");
    deregistration.setRegister(false);
    processServerDeregister(deregistration);
    require(expectedOutcome(false) ==
            Outcome{deregistration.getErrorCode(), -1, static_cast<int>(g_urls.size())});
    require(session->getPort().getPort() == port);
    checkUrls("http://server/mss/PD_subDereg?serviceid=app");
    return 0;
}
