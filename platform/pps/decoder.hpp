// The object decoder: reads the text of one object, walks into its nested objects and arrays.
//
//     pps_decoder_t decoder;
//     pps_decoder_initialize(&decoder, text);          @ipc.17
//     pps_decoder_push(&decoder, nullptr);             msg::createSession
//     pps_decoder_get_string(&decoder, "msg", &msg);   dat:json:{"providerApplicationId":"a"}
//     pps_decoder_push(&decoder, "dat");
//
// Before the first push the decoder stands outside the object: pps_decoder_length is 1 when the
// text held one, else 0. After a push that failed, gets give PPS_DECODER_ABSENT and
// pps_decoder_length 0 until the matching pop, so that an attribute of the wrong level is never
// taken for another's. Extra pops are harmless.
//
// Damaged text: a line that is no attribute line, or an attribute whose value does not fit its
// encoding (bad JSON, nesting deeper than 64, letters in a number), makes the parse report
// PPS_DECODER_PARSE_ERROR; the attribute concerned is absent, all the others can be read. When a
// name occurs twice in one object, gets by name give the last one.
//
// Pure text: no descriptors, no logging; a decoder belongs to one thread at a time. It keeps
// copies: the text may go once a parse has returned.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

enum pps_decoder_error_t {
    PPS_DECODER_OK = 0,
    PPS_DECODER_ABSENT = 1,      // no such attribute or element
    PPS_DECODER_BAD_TYPE = 2,    // it exists, but is of another type, or a number out of range
    PPS_DECODER_PARSE_ERROR = 3  // the text is damaged
};

// Flags of the object: its text began with '+' (it was created) or '-' (it was deleted).
enum pps_decoder_flags_t : unsigned { PPS_FLAG_CREATED = 1U, PPS_FLAG_DELETED = 2U };

// Nested objects and arrays may be this deep; deeper text is damaged text.
constexpr int PPS_MAX_DEPTH = 64;

struct pps_value_t;

struct pps_decoder_t {
    pps_decoder_t();
    ~pps_decoder_t();
    pps_decoder_t(const pps_decoder_t&) = delete;
    pps_decoder_t& operator=(const pps_decoder_t&) = delete;

    struct Frame {
        const pps_value_t* value;  // null after a push that failed
        std::size_t next;          // the element that an unnamed push or get in an array takes
    };
    std::string m_name;
    unsigned m_flags = 0;
    bool m_hasObject = false;
    std::unique_ptr<pps_value_t> m_object;
    std::vector<Frame> m_frames;
};

// Prepares a decoder and parses `text` (NUL-terminated; null counts as an empty text).
pps_decoder_error_t pps_decoder_initialize(pps_decoder_t* decoder, const char* text);

// Forgets the previous object and parses `text`.
pps_decoder_error_t pps_decoder_parse_pps_str(pps_decoder_t* decoder, const char* text);

// Forgets the object and gives its memory back.
void pps_decoder_cleanup(pps_decoder_t* decoder);

// The object's name with its '@', "" when the text has no "@name" line. Valid until the next parse.
const char* pps_decoder_name(const pps_decoder_t* decoder);
unsigned pps_decoder_flags(const pps_decoder_t* decoder);

// Number of attributes or elements at the present level (outside the object: of objects, 0 or 1).
int pps_decoder_length(const pps_decoder_t* decoder);

// Enters the object (from outside; `name` null), the nested object or array `name`, or with a null
// name in an array its next element. A failed push must be popped like any other.
pps_decoder_error_t pps_decoder_push(pps_decoder_t* decoder, const char* name);
void pps_decoder_pop(pps_decoder_t* decoder);

// Attribute `name` of the present object, or with a null name the next element of the present
// array. `value` is written only when PPS_DECODER_OK is returned.
pps_decoder_error_t pps_decoder_get_string(pps_decoder_t* decoder, const char* name,
                                           std::string* value);
pps_decoder_error_t pps_decoder_get_int(pps_decoder_t* decoder, const char* name, int* value);
pps_decoder_error_t pps_decoder_get_bool(pps_decoder_t* decoder, const char* name, bool* value);

// Attribute number `index` of the present level, in the order of the text, equal names included:
// its name ("" for array elements), and its value as text: a string as it is, a number or boolean
// as written. PPS_DECODER_BAD_TYPE for objects and arrays, whose name is given all the same.
pps_decoder_error_t pps_decoder_get_at(const pps_decoder_t* decoder, int index, std::string* name,
                                       std::string* value);
