#include "tools/quilctl/log_line.hpp"

#include <cctype>

namespace {

bool isDigit(char byte) {
    return byte >= '0' && byte <= '9';
}

// The number in the two digits at `at`, or -1.
int twoDigits(std::string_view text, std::size_t at) {
    const bool areDigits = at + 1 < text.size() && isDigit(text[at]) && isDigit(text[at + 1]);
    return areDigits ? (text[at] - '0') * 10 + (text[at + 1] - '0') : -1;
}

// The first "HH:MM:SS" in `text`, with the fraction that may follow.
std::optional<double> findTime(std::string_view text) {
    for (std::size_t at = 0; at + 8 <= text.size(); ++at) {
        const int hours = twoDigits(text, at);
        const int minutes = twoDigits(text, at + 3);
        const int seconds = twoDigits(text, at + 6);
        const bool isTime = hours >= 0 && hours < 24 && minutes >= 0 && minutes < 60 &&
                            seconds >= 0 && seconds <= 60 && text[at + 2] == ':' &&
                            text[at + 5] == ':';
        if (!isTime) {
            continue;
        }
        double time = hours * 3600 + minutes * 60 + seconds;
        double weight = 0.1;
        const bool hasFraction =
            at + 8 < text.size() && (text[at + 8] == '.' || text[at + 8] == ',');
        for (std::size_t i = at + 9; hasFraction && i < text.size() && isDigit(text[i]); ++i) {
            time += weight * (text[i] - '0');
            weight /= 10;
        }
        return time;
    }
    return std::nullopt;
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
