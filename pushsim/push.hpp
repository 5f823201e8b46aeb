// A push as it stands on the wire, from its sender's side.
//
//     POST /push HTTP/1.1            the first line holds no ':'
//     Content-Length: 5              lines end with CR LF
//     Push-Message-ID: m1
//                                    an empty line
//     hello                          the data, any bytes

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What a device takes: the bytes of a whole push, and the data bytes whose base64 form still fits.
constexpr std::size_t kLongestPushBytes = 15360;
constexpr std::size_t kLongestDataBytes = 11517;

struct PushHead {
    bool contentLength = true;         // a "Content-Length" line with the length of the data
    std::optional<std::string> id;     // a "Push-Message-ID" line
    std::vector<std::string> headers;  // further lines "Name: value", without their line ends
};

std::string buildPush(const PushHead& head, std::string_view data);

// The example of the documentation: 65 bytes, id "m1", data "hello".
std::string examplePush();

// What a device will not like about these bytes, one sentence each; empty when nothing. Looks at
// the same things as the device: where the header block ends, what is counted as data.
std::vector<std::string> pushWarnings(std::string_view push);
