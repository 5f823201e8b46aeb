// Object text of any bytes: parsing ends, never reads out of bounds, and what was read survives a
// round trip.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/pps/decoder.hpp"
#include "platform/pps/encoder.hpp"
#include "platform/pps/ppsparse.hpp"

namespace {

void walkLines(const std::string& text) {
    const char* cursor = text.data();
    const char* end = cursor + text.size();
    pps_line_t line;
    while (ppsparse(&cursor, end, &line) != PPS_END) {
    }
}

// Every string attribute, written anew and read back.
void roundTrip(const std::string& value) {
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, "x");
    pps_encoder_add_string(&encoder, "a", value);
    pps_encoder_end_object(&encoder);
    pps_decoder_t decoder;
    std::string back;
    if (pps_decoder_initialize(&decoder, pps_encoder_buffer(&encoder)) != PPS_DECODER_OK ||
        pps_decoder_push(&decoder, nullptr) != PPS_DECODER_OK ||
        pps_decoder_length(&decoder) != 1 ||
        pps_decoder_get_string(&decoder, "a", &back) != PPS_DECODER_OK || back != value) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    walkLines(text);
    pps_decoder_t decoder;
    pps_decoder_initialize(&decoder, text.c_str());
    pps_decoder_push(&decoder, nullptr);
    std::string name;
    std::string value;
    for (int i = 0; pps_decoder_get_at(&decoder, i, &name, &value) != PPS_DECODER_ABSENT; ++i) {
        roundTrip(value);
        pps_decoder_push(&decoder, name.c_str());
        pps_decoder_pop(&decoder);
    }
    return 0;
}
