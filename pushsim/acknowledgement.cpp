// The bytes in front of the date and behind it are fixed and compared as they stand. The date is
// read into numbers and written again: only the text that comes out the same is accepted, so a
// wrong weekday, a 30th of February or a missing blank shows.

#include "pushsim/acknowledgement.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "pushsim/readable.hpp"

namespace {

constexpr std::string_view kBeforeDate = "HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:";
constexpr std::string_view kAfterDate = "\n\n\r";
constexpr std::size_t kDateBytes = 24;
static_assert(kBeforeDate.size() + kDateBytes + kAfterDate.size() == kAcknowledgementBytes);

constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::array<const char*, 7> kWeekdays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

// The fault of the first byte of `bytes` from `offset` on that differs from `expected`; empty when
// all are there.
std::string compare(std::string_view bytes, std::size_t offset, std::string_view expected) {
    const std::string_view part = bytes.substr(offset, expected.size());
    const auto [found, wanted] =
        std::mismatch(part.begin(), part.end(), expected.begin(), expected.end());
    if (wanted == expected.end()) {
        return {};
    }
    const auto good = static_cast<std::size_t>(wanted - expected.begin());
    const std::string where = "byte " + std::to_string(offset + good);
    if (found == part.end()) {
        return "ends at " + where + ", where \"" + readable(expected.substr(good)) +
               "\" should follow";
    }
    return where + " is \"" + readable(part.substr(good, 1)) + "\" and should be \"" +
           readable(expected.substr(good, 1)) + "\"";
}

bool readDate(const std::string& text, std::tm* time) {
    std::array<char, 4> month{};
    int year = 0;
    int taken = 0;
    if (std::sscanf(text.c_str(), "%*3s %3s %2d %2d:%2d:%2d %4d%n", month.data(), &time->tm_mday,
                    &time->tm_hour, &time->tm_min, &time->tm_sec, &year, &taken) != 6) {
        return false;
    }
    const auto* const name =
        std::find(kMonths.begin(), kMonths.end(), std::string_view(month.data()));
    if (name == kMonths.end() || taken != static_cast<int>(text.size())) {
        return false;
    }
    time->tm_mon = static_cast<int>(name - kMonths.begin());
    time->tm_year = year - 1900;
    // A calendar that knows no time zone fills in the weekday and moves what does not exist.
    std::tm real = *time;
    if (timegm(&real) == -1) {
        return false;
    }
    std::array<char, 64> again{};
    std::snprintf(again.data(), again.size(), "%s %s %2d %02d:%02d:%02d %d",
                  kWeekdays.at(static_cast<std::size_t>(real.tm_wday)),
                  kMonths.at(static_cast<std::size_t>(real.tm_mon)), real.tm_mday, real.tm_hour,
                  real.tm_min, real.tm_sec, real.tm_year + 1900);
    *time = real;
    return text == again.data();
}

}  // namespace

AcknowledgementCheck checkAcknowledgement(std::string_view bytes) {
    AcknowledgementCheck check;
    check.fault = compare(bytes, 0, kBeforeDate);
    if (!check.fault.empty()) {
        return check;
    }
    check.date = bytes.substr(kBeforeDate.size(), kDateBytes);
    if (!readDate(check.date, &check.time)) {
        check.fault = "byte " + std::to_string(kBeforeDate.size()) + ": \"" + readable(check.date) +
                      "\" is no date like \"Sat Nov 21 02:24:44 2026\"";
        return check;
    }
    check.fault = compare(bytes, kBeforeDate.size() + kDateBytes, kAfterDate);
    if (check.fault.empty() && bytes.size() > kAcknowledgementBytes) {
        check.fault = std::to_string(bytes.size() - kAcknowledgementBytes) +
                      " bytes too many, from byte " + std::to_string(kAcknowledgementBytes) + " on";
    }
    return check;
}

double daysFrom(const std::tm& date, std::time_t now) {
    std::tm copy = date;
    std::tm local{};
    localtime_r(&now, &local);
    constexpr double kSecondsPerDay = 86400;
    return std::abs(std::difftime(timegm(&copy), timegm(&local))) / kSecondsPerDay;
}
