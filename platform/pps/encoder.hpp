// The object encoder: builds the text of one object, attribute by attribute.
//
//     pps_encoder_t encoder;
//     pps_encoder_initialize(&encoder, false);
//     pps_encoder_start_object(&encoder, "@ipc.17");     @ipc.17
//     pps_encoder_add_string(&encoder, "msg", "hello");  msg::hello
//     pps_encoder_start_object(&encoder, "dat");         dat:json:{
//     pps_encoder_add_int(&encoder, "n", 1);                       "n":1
//     pps_encoder_end_object(&encoder);                                 }
//     pps_encoder_end_object(&encoder);
//
// A top-level object is "@name" and one line "attribute:encoding:value" per attribute; objects and
// arrays inside it become one line of JSON. No value and no name can add a line or an attribute.
// Equal keys in one object are all written, in order.
//
// Errors: a call that cannot be carried out (a name that no attribute can have, an end without a
// start) returns PPS_ENCODER_ERROR and writes nothing; a refused start also swallows what is added
// until its end. Pure text: no descriptors, no logging; an encoder belongs to one thread at a time.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum pps_encoder_error_t { PPS_ENCODER_OK = 0, PPS_ENCODER_ERROR = 1 };

struct pps_encoder_t {
    struct Level {
        enum Kind { Top, Object, Array, Refused } kind;
        bool empty;     // nothing written in it yet, so no comma is due
        bool endsLine;  // its end also ends an attribute line
    };
    std::string m_text;
    std::vector<Level> m_levels;
    bool m_json = false;
};

// Prepares an encoder. With `json` the outermost object is written as JSON too, on one line.
void pps_encoder_initialize(pps_encoder_t* encoder, bool json);

// Forgets all that was encoded, open levels included; the encoder may be used anew.
void pps_encoder_reset(pps_encoder_t* encoder);

// Forgets all that was encoded and gives its memory back. Reset or initialise before further use.
void pps_encoder_cleanup(pps_encoder_t* encoder);

// At top level: writes the line "@name", adding the "@" where `name` lacks it; with a null or empty
// name no such line. Inside an object: a nested object under `name`. Inside an array: an element,
// the name is ignored.
pps_encoder_error_t pps_encoder_start_object(pps_encoder_t* encoder, const char* name);
pps_encoder_error_t pps_encoder_end_object(pps_encoder_t* encoder);

// An array under `name`, inside an object or (name ignored) an array.
pps_encoder_error_t pps_encoder_start_array(pps_encoder_t* encoder, const char* name);
pps_encoder_error_t pps_encoder_end_array(pps_encoder_t* encoder);

// One attribute, or inside an array (name ignored) one element. Values may hold any bytes, zero
// included.
pps_encoder_error_t pps_encoder_add_string(pps_encoder_t* encoder, std::string_view name,
                                           std::string_view value);
pps_encoder_error_t pps_encoder_add_int(pps_encoder_t* encoder, std::string_view name,
                                        std::int64_t value);
pps_encoder_error_t pps_encoder_add_bool(pps_encoder_t* encoder, std::string_view name, bool value);

// The text so far, NUL-terminated, and its length in bytes without the NUL. The pointer is valid
// until the next call that changes the encoder.
const char* pps_encoder_buffer(const pps_encoder_t* encoder);
std::size_t pps_encoder_length(const pps_encoder_t* encoder);
