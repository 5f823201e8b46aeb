// The line parser: walks the text of an object one line at a time, without copying and without
// decoding. Pure text: no descriptors, no logging, no threads.
//
//     const char* cursor = text.data();
//     pps_line_t line;
//     while (ppsparse(&cursor, text.data() + text.size(), &line) != PPS_END) { ... }
//     if (line.incomplete) { /* cursor stands at a last line that has no line feed yet */ }

#pragma once

#include <string_view>

// What one call found. The two attribute results are 3 and 5: callers that want attributes of any
// encoding test for both.
enum pps_result_t {
    PPS_MALFORMED = -1,        // a line that is none of the forms below; skip it and go on
    PPS_END = 0,               // no complete line is left
    PPS_OBJECT = 1,            // "@name"
    PPS_OBJECT_CREATED = 2,    // "+@name"
    PPS_ATTRIBUTE = 3,         // "name::value", a plain string
    PPS_OBJECT_DELETED = 4,    // "-@name"
    PPS_ATTRIBUTE_CODED = 5,   // "name:encoding:value"
    PPS_ATTRIBUTE_REMOVED = 6  // "-name"
};

// Views into the caller's buffer, valid as long as that is. Fields that a result has no use for are
// empty. Object names keep their '@'.
struct pps_line_t {
    std::string_view name;
    std::string_view encoding;
    std::string_view value;
    // Set with PPS_END: bytes are left behind the cursor, but no line feed ends them.
    bool incomplete = false;
};

// Parses the line at *cursor, which must lie in [buffer, end], and moves the cursor behind its line
// feed. At PPS_END the cursor stays: at `end`, or at the first byte of the incomplete last line.
pps_result_t ppsparse(const char** cursor, const char* end, pps_line_t* line);
