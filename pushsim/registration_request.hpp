// The request of a device to the push data server, read from the target of its GET:
//
//     [prefix]/mss/PD_subReg?serviceid=APP&osversion=OS&model=MODEL     [&param=...]
//     [prefix]/mss/PD_subDereg?serviceid=APP                            [&param=...]
//
// The device encodes nothing, so nothing is decoded: the values are what stands between the names,
// blanks, '%' and '&' included.

#pragma once

#include <optional>
#include <string>
#include <string_view>

struct RegistrationRequest {
    bool isRegistration = false;  // else a deregistration
    std::string application;
    std::string osVersion;  // empty when missing, as in every deregistration
    std::string model;
    bool hasParameter = false;  // "&param=" stands behind: the second step of an exchange
};

// Nothing when the target is neither of the two.
std::optional<RegistrationRequest> parseRegistrationRequest(std::string_view target);

// The number behind the first "rc=" of a body, as a device reads it: leading digits, 0 when there
// are none; nothing without "rc=". Numbers of more than 9 digits are cut to 9.
std::optional<int> returnCode(std::string_view body);
