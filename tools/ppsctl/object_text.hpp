// Object text as the tools write and show it.

#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

// The text to write for attributes as typed; nothing, with the reason in `error`, when one of them
// is none.
std::optional<std::string> attributeLines(const std::vector<std::string>& attributes,
                                          std::string* error);

// "object" (the name with its '@' and sign, where there is one), "attributes" (a list of "name",
// "encoding", "value", all as they stand) and, where there are any, "removed" (names).
nlohmann::ordered_json objectAsJson(const std::string& text);
