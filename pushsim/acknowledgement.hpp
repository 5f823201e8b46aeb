// The acknowledgement that a device sends when the application has accepted a push: 72 bytes,
//
//     "HTTP/1.0 200 OK" LF CR
//     "X-Wap-Push-Status:400" LF CR
//     "Date:" and 24 characters like "Sat Nov 21 02:24:44 2026" and LF
//     LF CR
//
// The line ends are LF CR, no blank stands behind "Date:", and no empty line ends the block.

#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>

constexpr std::size_t kAcknowledgementBytes = 72;

struct AcknowledgementCheck {
    // What is wrong, with the offset of the first wrong byte; empty when every byte is right.
    std::string fault;
    // The date's 24 characters and what they say (in the device's local time); only without fault.
    std::string date;
    std::tm time{};

    bool isValid() const { return fault.empty(); }
};

AcknowledgementCheck checkAcknowledgement(std::string_view bytes);

// Days between the date of a valid acknowledgement and `now`, both read as local times: more than
// one is more than time zones can explain.
double daysFrom(const std::tm& date, std::time_t now);
