#include "tools/quilctl/log_line.hpp"

#include <cstdlib>
#include <ctime>

namespace {

constexpr double kDay = 86400;
constexpr int kLeapYear = 2000;
constexpr double kLeapYearDays = 366;
constexpr double kUnixTimes = 1e9;  // seconds above it are counted from 1970

bool isDigit(char byte) {
    return byte >= '0' && byte <= '9';
}

// The number in the two digits at `at`, or -1.
int twoDigits(std::string_view text, std::size_t at) {
    const bool areDigits = at + 1 < text.size() && isDigit(text[at]) && isDigit(text[at + 1]);
    return areDigits ? (text[at] - '0') * 10 + (text[at + 1] - '0') : -1;
}

// The digits at `at` as the part behind a decimal point.
double fractionAt(std::string_view text, std::size_t at) {
    double fraction = 0;
    double weight = 0.1;
    for (; at < text.size() && isDigit(text[at]); ++at) {
        fraction += weight * (text[at] - '0');
        weight /= 10;
    }
    return fraction;
}

// The time of the day at `at`, "HH:MM:SS" with or without a fraction.
std::optional<double> timeOfDayAt(std::string_view text, std::size_t at) {
    const int hours = twoDigits(text, at);
    const int minutes = twoDigits(text, at + 3);
    const int seconds = twoDigits(text, at + 6);
    const bool isTime = hours >= 0 && hours < 24 && minutes >= 0 && minutes < 60 && seconds >= 0 &&
                        seconds <= 60 && text[at + 2] == ':' && text[at + 5] == ':';
    if (!isTime) {
        return std::nullopt;
    }
    const bool hasFraction = at + 8 < text.size() && (text[at + 8] == '.' || text[at + 8] == ',');
    return hours * 3600 + minutes * 60 + seconds + (hasFraction ? fractionAt(text, at + 9) : 0);
}

// Days since 1970 of a date.
std::optional<double> dayNumber(int year, int month, int day) {
    if (month < 1 || month > 12 || day < 1 || day > 31) {
        return std::nullopt;
    }
    std::tm date{};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    return static_cast<double>(timegm(&date)) / kDay;
}

// The "YYYY-MM-DD" with one more character that ends `front`.
std::optional<double> isoDayAtEnd(std::string_view front) {
    if (front.size() < 11) {
        return std::nullopt;
    }
    const std::string_view date = front.substr(front.size() - 11);
    const int century = twoDigits(date, 0);
    const int year = twoDigits(date, 2);
    const bool isDate = century >= 0 && year >= 0 && date[4] == '-' && date[7] == '-';
    return isDate ? dayNumber(century * 100 + year, twoDigits(date, 5), twoDigits(date, 8))
                  : std::nullopt;
}

// The "Mmm dd " that ends `front`, in a leap year.
std::optional<double> syslogDayAtEnd(std::string_view front) {
    constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
    if (front.size() < 7) {
        return std::nullopt;
    }
    const std::string_view date = front.substr(front.size() - 7);
    const std::size_t month = kMonths.find(date.substr(0, 3));
    const bool isOneDigit = date[4] == ' ' && isDigit(date[5]);
    const int day = isOneDigit ? date[5] - '0' : twoDigits(date, 4);
    if (month == std::string_view::npos || month % 3 != 0 || date[3] != ' ' || date[6] != ' ') {
        return std::nullopt;
    }
    return dayNumber(kLeapYear, static_cast<int>(month / 3) + 1, day);
}

// Seconds at the start of the line: "1795341600.123456 host ..." or "[ 1234.567890] host ...".
std::optional<LogTime> secondsAtStart(std::string_view front) {
    std::size_t at = front.find_first_not_of("[ ");
    double seconds = 0;
    const std::size_t first = at;
    for (; at < front.size() && isDigit(front[at]); ++at) {
        seconds = seconds * 10 + (front[at] - '0');
    }
    if (at >= front.size() || at == first || front[at] != '.') {
        return std::nullopt;
    }
    if (seconds > kUnixTimes) {
        const auto whole = static_cast<std::time_t>(seconds);
        std::tm local{};
        localtime_r(&whole, &local);
        seconds = static_cast<double>(timegm(&local));
    }
    return LogTime{seconds + fractionAt(front, at + 1), 0};
}

// The first time in `front`, with the date before it.
std::optional<LogTime> findTime(std::string_view front) {
    for (std::size_t at = 0; at + 8 <= front.size(); ++at) {
        const std::optional<double> time = timeOfDayAt(front, at);
        if (!time) {
            continue;
        }
        if (const auto day = isoDayAtEnd(front.substr(0, at))) {
            return LogTime{*day * kDay + *time, 0};
        }
        if (const auto day = syslogDayAtEnd(front.substr(0, at))) {
            return LogTime{*day * kDay + *time, kLeapYearDays * kDay};
        }
        return LogTime{*time, kDay};
    }
    return secondsAtStart(front);
}

}  // namespace

std::optional<LogLine> parseLogLine(std::string_view line) {
    const std::size_t mark = line.find("QUIL:");
    const std::size_t end = mark == std::string_view::npos ? mark : line.find("): ", mark);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    return LogLine{line.substr(end + 3), findTime(line.substr(0, mark))};
}

double RunningTime::next(const LogTime& time) {
    if (m_last && time.period > 0 && time.seconds + time.period / 2 < *m_last) {
        m_periods += time.period;
    }
    m_last = time.seconds;
    return m_periods + time.seconds;
}

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

std::optional<int> typeOfTaken(std::string_view text) {
    const std::size_t digits = text.find_first_not_of("0123456789");
    if (digits == 0 || digits == std::string_view::npos || text.substr(digits) != " received") {
        return std::nullopt;
    }
    return std::atoi(std::string(text).c_str());
}

std::optional<std::string> between(std::string_view text, std::string_view before,
                                   std::string_view after) {
    const std::size_t start = text.find(before);
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view rest = text.substr(start + before.size());
    const std::size_t end = rest.find(after);
    return end == std::string_view::npos ? std::nullopt
                                         : std::optional<std::string>(rest.substr(0, end));
}

std::optional<std::string> betweenLast(std::string_view text, std::string_view before,
                                       std::string_view after) {
    const std::size_t start = text.find(before);
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view rest = text.substr(start + before.size());
    const std::size_t end = rest.rfind(after);
    return end == std::string_view::npos ? std::nullopt
                                         : std::optional<std::string>(rest.substr(0, end));
}
