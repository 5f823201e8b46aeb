// How quilctl speaks: words for people, or with --json one object per line.

#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "quilclient/result.hpp"
#include "tools/common/exit_status.hpp"

// The exit status that tells of `result`.
ExitStatus exitStatusOf(const quilclient::Result& result);

// One line of JSON on standard output, flushed. Bytes that are no UTF-8 become U+FFFD.
void printJson(const nlohmann::ordered_json& object);

// What went wrong, with its code, and the next step, on standard error. `subject` names what was
// attempted, such as "create-channel com.example.app".
void printFailure(const std::string& subject, const quilclient::Result& result);

// What went wrong without a code, and the next step, on standard error.
void printTrouble(const std::string& words, const std::string& next);

// Adds "code", and for a failure "words", "origin" and "next", to `object`.
void addResult(nlohmann::ordered_json& object, const quilclient::Result& result);

// The time of day of a number of seconds, "12:34:56.789", or dashes for none.
std::string clockText(const std::optional<double>& seconds);

// The time of day now, "12:34:56".
std::string timeOfDay();

// Rounded up, so that no time-out above 0 becomes none.
std::chrono::milliseconds asMilliseconds(double seconds);
