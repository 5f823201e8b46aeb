// One line of the agent's log: "QUIL:file.cpp(LINE): text", with or without something in front,
// such as the time and host that a journal adds.

#pragma once

#include <optional>
#include <string>
#include <string_view>

// Times in seconds, as they were written: no time zone is looked at.
struct LogTime {
    double seconds;
    // After how many seconds the clock begins anew: a day for a time of the day, a leap year for a
    // date without a year, 0 for a whole date.
    double period;
};

struct LogLine {
    std::string_view text;        // behind the file and line number
    std::optional<LogTime> time;  // where one stood in front
};

// Nothing for a line that is none of the agent's. Views into `line`. Read are "HH:MM:SS" with or
// without a fraction, behind "YYYY-MM-DD", behind "Mmm dd" or alone, and seconds with a fraction at
// the start of the line (above 10^9 they are those since 1970, shown in local time).
std::optional<LogLine> parseLogLine(std::string_view line);

// Makes of the times of a log's lines one that goes on.
class RunningTime {
  public:
    double next(const LogTime& time);

  private:
    std::optional<double> m_last;
    double m_periods = 0;
};

bool startsWith(std::string_view text, std::string_view start);
bool contains(std::string_view text, std::string_view part);

// The type of the message, when the text is the handler thread's that it took one.
std::optional<int> typeOfTaken(std::string_view text);

// What stands between `before` and the next `after` in `text`; nothing when either is missing.
std::optional<std::string> between(std::string_view text, std::string_view before,
                                   std::string_view after);

// The same for the last `after`: for values that may hold it themselves.
std::optional<std::string> betweenLast(std::string_view text, std::string_view before,
                                       std::string_view after);
