// Pushes as files, for --save.

#pragma once

#include <string>

#include "quilclient/push_client.hpp"

// A file name without surprises for any push id: letters, digits, '-', '_' and inner dots stand for
// themselves, every other byte becomes "%" and two hexadecimal digits. Never empty, never longer
// than 120 bytes.
std::string safeFileName(const std::string& id);

// Writes the data to DIR/NAME.data and the headers, one "Name:value" line each, to
// DIR/NAME.headers, both on disk when this returns. NAME is safeFileName() of the id, with "-2",
// "-3" ... behind it while such files exist: nothing is ever overwritten. DIR must exist. Returns
// NAME; on failure "" with the reason in `error`, and no file stays.
std::string savePush(const std::string& directory, const quilclient::Push& push,
                     std::string* error);
