// Names as they are opened: "NAME?option,option".

#pragma once

#include <cstdint>
#include <string_view>

// What follows the '?' of a name.
struct OpenOptions {
    bool wait = false;     // a read with nothing to give waits
    bool delta = false;    // reads give only what changed since the last one
    bool server = false;   // the opener serves the object
    bool clients = false;  // reads tell who has the served object open

    static constexpr unsigned kBits = 4;

    // The options as a number below 1 << kBits; 0 when there are none.
    std::uint64_t bits() const {
        return (wait ? 1U : 0U) | (delta ? 2U : 0U) | (server ? 4U : 0U) | (clients ? 8U : 0U);
    }
    static OpenOptions fromBits(std::uint64_t bits) {
        return {(bits & 1U) != 0, (bits & 2U) != 0, (bits & 4U) != 0, (bits & 8U) != 0};
    }
};

struct ObjectName {
    std::string_view name;  // without the options
    OpenOptions options;
};

// Takes a file name apart. Gives 0; EINVAL for an unknown or empty option, an empty name, or a name
// with a control byte (a line feed in a name would let it forge lines of object text);
// ENAMETOOLONG. The view in `parsed` points into `text`.
int parseObjectName(std::string_view text, ObjectName& parsed);
