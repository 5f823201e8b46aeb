// How a push looks to people, and as JSON.

#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "quilclient/push_client.hpp"
#include "tools/common/terminal.hpp"

// Some lines, the last one ended: id, size and who waits, then the headers, then the data: text as
// its lines, anything else as a hexadecimal dump; of much data only the beginning. No byte of the
// push reaches the terminal as a control byte.
std::string describePush(const quilclient::Push& push, const Style& style);

// "event", "id", "senderWaits", "duplicate", "headers" (pairs, in order), "bytes", "data" (base64)
// and, for readable data, "text".
nlohmann::ordered_json pushAsJson(const quilclient::Push& push);
