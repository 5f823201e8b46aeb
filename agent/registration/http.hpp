// One blocking HTTP GET at a time, over libcurl. docs/formats/registration.md shows what is asked
// of it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

// A growable array of elements of one size. Plain data: what it holds belongs to whoever takes
// `data`.
struct HttpBuffer {
    void* data;
    std::uint32_t count;
    std::uint32_t elementSize;  // bytes
};

void httpBufferInit(HttpBuffer* buffer, std::uint32_t elementSize);

// Copies n elements behind those that it holds. Reports success (0) in every case: what cannot be
// stored (no data, a size beyond 32 bits, no memory) is dropped. Kept on purpose: a server that
// sends too much must not fail the request; callers that care compare `count`.
int httpBufferAppend(HttpBuffer* buffer, const void* elements, std::uint32_t n);

// One header line, stripped, both texts NUL-terminated copies on the C heap.
struct HttpHeaderField {
    char* name;
    std::uint32_t nameLength;
    char* value;
    std::uint32_t valueLength;
};

// What a request brought. Owned by the caller, released by httpFreeResponse.
struct HttpResponse {
    HttpHeaderField* headers;
    std::uint32_t headerCount;
    char* body;  // not NUL-terminated; null when empty
    std::uint32_t bodyLength;
};

// Every later request goes through this proxy, unless the host is empty or the port below 1. `host`
// is borrowed and must outlive all requests; null keeps the one before. Start-up only.
void httpSetProxy(const char* host, int port);

// The longest that a later request may take, in seconds; 0 for libcurl's own limits. Start-up only.
void httpSetTimeout(int seconds);

// Fetches a URL. Gives libcurl's result code; 0 means that an answer arrived, whatever its status.
// Only then `httpStatus` and `response` are written; `response` may be null even then, when memory
// ran out. Nothing is sent when libcurl refuses a setting. Bodies beyond 1 MiB and header lines
// beyond 1000 are cut off silently. A URL of another scheme than http and https is refused with
// libcurl's code for an unsupported protocol. Any thread; blocks it until the request is over.
int httpGet(const char* url, long* httpStatus, HttpResponse** response);

// The first field of that name, whatever the case of its letters; null for none.
const HttpHeaderField* httpFindHeader(const char* name, const HttpHeaderField* headers,
                                      std::uint32_t headerCount);

// Releases a response and leaves the pointer alone; null at either level is allowed.
void httpFreeResponse(HttpResponse** response);

// Moves the pointer over leading white space and shortens the length by trailing white space.
void httpStrip(const char** text, std::uint32_t* length);

// libcurl's write callbacks, for a list of HttpHeaderField and for a body (elements of one byte).
std::size_t curlHeaderWrite(const char* data, std::size_t size, std::size_t count, void* list);
std::size_t curlBodyWrite(const char* data, std::size_t size, std::size_t count, void* body);

// Owns a response.
struct HttpResponseFree {
    void operator()(HttpResponse* response) const { httpFreeResponse(&response); }
};
using HttpResponsePointer = std::unique_ptr<HttpResponse, HttpResponseFree>;
