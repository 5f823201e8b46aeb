// Header lines and a body of any bytes from a push data server.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "agent/registration/http.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    HttpBuffer headers;
    HttpBuffer body;
    httpBufferInit(&headers, sizeof(HttpHeaderField));
    httpBufferInit(&body, 1);
    const auto* at = reinterpret_cast<const char*>(data);
    const char* end = at + size;
    while (at < end) {
        const void* feed = std::memchr(at, '\n', static_cast<std::size_t>(end - at));
        const char* next = feed == nullptr ? end : static_cast<const char*>(feed) + 1;
        const auto length = static_cast<std::size_t>(next - at);
        if (curlHeaderWrite(at, 1, length, &headers) != length ||
            curlBodyWrite(at, 1, length, &body) != length) {
            std::abort();
        }
        at = next;
    }
    auto* fields = static_cast<HttpHeaderField*>(headers.data);
    httpFindHeader("vex-device-ovra-port", fields, headers.count);
    auto* response = static_cast<HttpResponse*>(std::malloc(sizeof(HttpResponse)));
    *response = {fields, headers.count, static_cast<char*>(body.data), body.count};
    httpFreeResponse(&response);
    return 0;
}
