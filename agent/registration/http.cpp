// Everything the server sends is collected in two buffers and handed over only when the transfer
// succeeded. Apart from the URL, the proxy, a limit on time and the callbacks no option is set:
// libcurl's defaults stand for the method, redirects, TLS verification and the user agent.

#include "agent/registration/http.hpp"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "agent/support/log.hpp"

namespace {

constexpr std::uint32_t kMostBodyBytes = 1024 * 1024;
constexpr std::uint32_t kMostHeaderFields = 1000;

// Written by start-up, before any request is made.
const char* g_proxyHost = nullptr;
int g_proxyPort = 0;
int g_timeoutSeconds = 0;

bool isSpace(char byte) {
    return std::isspace(static_cast<unsigned char>(byte)) != 0;
}

// A copy on the C heap with a NUL behind it, null without memory.
char* copyText(const char* text, std::uint32_t length) {
    auto* copy = static_cast<char*>(std::malloc(std::size_t{length} + 1));
    if (copy != nullptr) {
        std::memcpy(copy, text, length);
        copy[length] = '\0';
    }
    return copy;
}

void freeField(const HttpHeaderField& field) {
    std::free(field.name);
    std::free(field.value);
}

void freeHeaders(HttpHeaderField* headers, std::uint32_t count) {
    std::for_each(headers, headers + count, freeField);
    std::free(headers);
}

// Whether libcurl would speak HTTP to that URL, also where it has to guess a scheme that is left
// out. A URL that it cannot make sense of is left to it to refuse.
bool isHttp(const char* url) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
    constexpr unsigned kFlags = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;
    char* scheme = nullptr;
    if (parsed == nullptr || curl_url_set(parsed.get(), CURLUPART_URL, url, kFlags) != CURLUE_OK ||
        curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) {
        return true;
    }
    const bool result = strcasecmp(scheme, "http") == 0 || strcasecmp(scheme, "https") == 0;
    curl_free(scheme);
    return result;
}

// The code of the first option that libcurl refused, which would otherwise be left at its default:
// the request must not go out then.
CURLcode setOptions(CURL* handle, const char* url, HttpBuffer* headers, HttpBuffer* body) {
    CURLcode result = CURLE_OK;
    const auto set = [handle, &result](CURLoption option, auto value) {
        const CURLcode code = curl_easy_setopt(handle, option, value);
        if (code != CURLE_OK) {
            QUIL_LOG(LOG_LEVEL_WARNING, "httpGet: option [%d] refused [%s]",
                     static_cast<int>(option), curl_easy_strerror(code));
            result = result == CURLE_OK ? code : result;
        }
    };
    set(CURLOPT_URL, url);
    if (g_proxyHost != nullptr && g_proxyHost[0] != '\0' && g_proxyPort > 0) {
        QUIL_LOG(LOG_LEVEL_INFO, "Proxy used [Host: %s][Port: %d]", g_proxyHost, g_proxyPort);
        set(CURLOPT_PROXY, g_proxyHost);
        set(CURLOPT_PROXYPORT, static_cast<long>(g_proxyPort));
    }
    if (g_timeoutSeconds > 0) {
        set(CURLOPT_TIMEOUT, static_cast<long>(g_timeoutSeconds));
    }
    set(CURLOPT_HEADERFUNCTION, curlHeaderWrite);
    set(CURLOPT_HEADERDATA, headers);
    set(CURLOPT_WRITEFUNCTION, curlBodyWrite);
    set(CURLOPT_WRITEDATA, body);
    return result;
}

// Moves the contents of both buffers into a response; null without memory, then the buffers keep
// them.
HttpResponse* takeResponse(HttpBuffer* headers, HttpBuffer* body) {
    auto* response = static_cast<HttpResponse*>(std::malloc(sizeof(HttpResponse)));
    if (response != nullptr) {
        *response = {static_cast<HttpHeaderField*>(headers->data), headers->count,
                     static_cast<char*>(body->data), body->count};
        *headers = {nullptr, 0, headers->elementSize};
        *body = {nullptr, 0, body->elementSize};
    }
    return response;
}

}  // namespace

void httpBufferInit(HttpBuffer* buffer, std::uint32_t elementSize) {
    *buffer = {nullptr, 0, elementSize};
}

int httpBufferAppend(HttpBuffer* buffer, const void* elements, std::uint32_t n) {
    if (buffer == nullptr || elements == nullptr || n == 0) {
        return 0;
    }
    std::uint32_t held = 0;
    std::uint32_t added = 0;
    std::uint32_t total = 0;
    if (__builtin_mul_overflow(buffer->count, buffer->elementSize, &held) ||
        __builtin_mul_overflow(buffer->elementSize, n, &added) ||
        __builtin_add_overflow(held, added, &total)) {
        return 0;
    }
    void* grown = std::realloc(buffer->data, total);
    if (grown == nullptr) {
        return 0;
    }
    buffer->data = grown;
    std::memcpy(static_cast<char*>(grown) + held, elements, added);
    buffer->count += n;
    return 0;
}

void httpSetProxy(const char* host, int port) {
    if (host != nullptr) {
        g_proxyHost = host;
        QUIL_LOG(LOG_LEVEL_DEBUG, "host is [%s]", host);
    }
    g_proxyPort = port;
    QUIL_LOG(LOG_LEVEL_DEBUG, "port is %d", port);
}

void httpSetTimeout(int seconds) {
    g_timeoutSeconds = seconds;
}

int httpGet(const char* url, long* httpStatus, HttpResponse** response) {
    if (!isHttp(url)) {
        return CURLE_UNSUPPORTED_PROTOCOL;
    }
    HttpBuffer headers;
    HttpBuffer body;
    httpBufferInit(&headers, sizeof(HttpHeaderField));
    httpBufferInit(&body, 1);
    CURL* handle = curl_easy_init();
    CURLcode result = setOptions(handle, url, &headers, &body);
    flushLogEcho();  // the request may take long
    if (result == CURLE_OK) {
        result = curl_easy_perform(handle);
    }
    if (result == CURLE_OK) {
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, httpStatus);
        *response = takeResponse(&headers, &body);
    }
    curl_easy_cleanup(handle);
    freeHeaders(static_cast<HttpHeaderField*>(headers.data), headers.count);
    std::free(body.data);
    return result;
}

const HttpHeaderField* httpFindHeader(const char* name, const HttpHeaderField* headers,
                                      std::uint32_t headerCount) {
    if (name == nullptr) {
        return nullptr;
    }
    const std::size_t length = std::strlen(name);
    const auto matches = [name, length](const HttpHeaderField& field) {
        return field.nameLength == length && strncasecmp(field.name, name, length) == 0;
    };
    const HttpHeaderField* end = headers + headerCount;
    const HttpHeaderField* found = std::find_if(headers, end, matches);
    return found == end ? nullptr : found;
}

void httpFreeResponse(HttpResponse** response) {
    if (response == nullptr || *response == nullptr) {
        return;
    }
    std::free((*response)->body);
    freeHeaders((*response)->headers, (*response)->headerCount);
    std::free(*response);
}

void httpStrip(const char** text, std::uint32_t* length) {
    if (text == nullptr || *text == nullptr || length == nullptr) {
        return;
    }
    while (*length > 0 && isSpace(**text)) {
        ++*text;
        --*length;
    }
    while (*length > 0 && isSpace((*text)[*length - 1])) {
        --*length;
    }
}

std::size_t curlHeaderWrite(const char* data, std::size_t size, std::size_t count, void* list) {
    const std::size_t length = size * count;
    const void* colon = length < 2 ? nullptr : std::memchr(data, ':', length);
    auto* headers = static_cast<HttpBuffer*>(list);
    if (colon == nullptr || headers->count >= kMostHeaderFields) {
        return length;
    }
    const char* name = data;
    const char* value = static_cast<const char*>(colon) + 1;
    auto nameLength = static_cast<std::uint32_t>(value - 1 - data);
    auto valueLength = static_cast<std::uint32_t>(data + length - value);
    httpStrip(&name, &nameLength);
    httpStrip(&value, &valueLength);
    const HttpHeaderField field = {copyText(name, nameLength), nameLength,
                                   copyText(value, valueLength), valueLength};
    const std::uint32_t before = headers->count;
    const bool isCopied = field.name != nullptr && field.value != nullptr;
    const int result = isCopied ? httpBufferAppend(headers, &field, 1) : 0;
    if (headers->count == before) {
        freeField(field);
    }
    if (result != 0) {
        QUIL_LOG(LOG_LEVEL_WARNING, "curlHeaderWrite failed [ResCode: 0x%x]",
                 static_cast<unsigned>(result));
        return 0;
    }
    return length;
}

std::size_t curlBodyWrite(const char* data, std::size_t size, std::size_t count, void* body) {
    const std::size_t length = size * count;
    auto* bytes = static_cast<HttpBuffer*>(body);
    const std::size_t kept = std::min<std::size_t>(length, kMostBodyBytes - bytes->count);
    const int result =
        kept == 0 ? 0 : httpBufferAppend(bytes, data, static_cast<std::uint32_t>(kept));
    if (result != 0) {
        QUIL_LOG(LOG_LEVEL_WARNING, "curlBodyWrite failed [ResCode: 0x%x]",
                 static_cast<unsigned>(result));
        return 0;
    }
    return length;
}
