// One line of the agent's log: "QUIL:file.cpp(LINE): text", with or without something in front,
// such as the time and host that a journal adds.

#pragma once

#include <optional>
#include <string>
#include <string_view>

struct LogLine {
    std::string_view text;          // behind the file and line number
    std::optional<double> dayTime;  // seconds since midnight, where a time stood in front
};

// Nothing for a line that is none of the agent's. Views into `line`.
std::optional<LogLine> parseLogLine(std::string_view line);

// What stands between `before` and the next `after` in `text`; nothing when either is missing.
std::optional<std::string> between(std::string_view text, std::string_view before,
                                   std::string_view after);

// The same for the last `after`: for values that may hold it themselves.
std::optional<std::string> betweenLast(std::string_view text, std::string_view before,
                                       std::string_view after);
