// Somebody's command for each push, for --exec.

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "quilclient/push_client.hpp"

// What is added to the environment of the command, as "NAME=value":
//   QUIL_APP, QUIL_PUSH_ID           as they stand
//   QUIL_SENDER_WAITS, QUIL_DUPLICATE  1 or 0
//   QUIL_SHORT  1 when it has less data than its Content-Length says, or 0
//   QUIL_HEADERS                     all headers, "Name: value" and a line feed each
//   QUIL_HEADER_CONTENT_TYPE         one per header name, in capitals, with '_' for all that is no
//                                    letter or digit; equal names: values on lines of their own
// Values of headers come without the blanks around them.
std::vector<std::string> pushEnvironment(const std::string& appId, const quilclient::Push& push);

// Runs `command` in a shell, with the push's data on its standard input. Gives its exit status (128
// and the signal's number added for a killed one), or nothing when it did not end until `deadline`;
// it is killed then. A command that does not read its input is no error. Throws std::system_error
// when it cannot be started.
std::optional<int> runPushCommand(const std::string& command, const std::string& appId,
                                  const quilclient::Push& push,
                                  std::chrono::steady_clock::time_point deadline);
