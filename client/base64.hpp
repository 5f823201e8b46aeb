// Base64 as the agent writes it: the standard alphabet, '=' at the end, no line breaks.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quilclient {

// The bytes that `text` stands for; nothing when it is not such base64, to the last bit.
std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace quilclient
