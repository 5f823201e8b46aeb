// Strings out of decoded objects.

#pragma once

#include <string>

#include "platform/pps/decoder.hpp"

// The string `name` of the decoder's present object, "" when it is absent or no string.
inline std::string readString(pps_decoder_t* decoder, const char* name) {
    std::string value;
    pps_decoder_get_string(decoder, name, &value);
    return value;
}
