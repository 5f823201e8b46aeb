// One file of the store as text: the form is described in docs/formats/store.md. Pure functions.

#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <string_view>

#include "ppsd/store/attributes.hpp"

// What a stat shows and chmod and chown change.
struct Metadata {
    uid_t owner = 0;
    gid_t group = 0;
    mode_t mode = 0;  // permission bits only, 07777
    timespec modified{};

    bool operator==(const Metadata& other) const {
        return owner == other.owner && group == other.group && mode == other.mode &&
               modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec;
    }
};

// What one file holds. A folder's record has no attributes.
struct Record {
    Metadata metadata;
    std::string lines;  // of the attributes
};

std::string encodeRecord(const Record& record);

// Takes the text of a file apart. False, with the reason in `error`, unless every line is in its
// place and the checksum is right (or says "unchecked", the mark of a file repaired by hand).
bool decodeRecord(std::string_view text, Record& record, std::string& error);
