// The outcome of everything that this library does: a number, and words for people.
//
// 0 is success. Numbers above 0 come from the agent (in the attribute "err" of its answers) or,
// through the agent, from the push server. Numbers below 0 are this library's own: they tell why
// there is no answer, or why an answer is none.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "quilclient/api.hpp"

namespace quilclient {

enum Code : int {
    kOk = 0,
    kNoObjectService = -1,  // nothing is mounted on /pps, or what was mounted there died
    kNoAgent = -2,          // the object service is up, but no agent serves the push object
    kTimedOut = -3,         // the agent did not answer in time
    kConnectionLost = -4,   // the agent or the object service went away
    kEmptyToken = -5,       // the channel's completion came without a token: it was not created
    kBadArgument = -6,      // refused before anything was sent; the words say what to change
    kNoPermission = -7,     // this user may not open the push object
    kHandlerThrew = -8,     // one of the application's own handlers threw an exception
    kSystemError = -9,      // the operating system refused; the words hold its reason
    kNotConnected = -10,    // there is no connection to the agent right now
    kQueueFull = -11,       // too many requests wait for an agent that does not read
    kObjectInTheWay = -12   // an ordinary object lies where the agent serves the push object
};

struct Result {
    int code = kOk;
    std::string words;  // one sentence, no line feed; empty on success

    bool ok() const { return code == kOk; }
};

// What is known about one code.
struct CodeInfo {
    int code;
    std::string_view origin;    // "agent", "push server" or "client library"
    std::string_view meaning;   // one sentence
    std::string_view nextStep;  // what to do about it, one sentence
};

// All codes that are known by number, in ascending order.
QUILCLIENT_API const std::vector<CodeInfo>& knownCodes();

// What `code` means. A code above 0 that is in no table is a return code of the push server, which
// the agent passes on unchanged; the answer says so. Never fails.
QUILCLIENT_API CodeInfo explain(int code) noexcept;

// The result for `code` with the meaning of explain() as its words.
QUILCLIENT_API Result resultOf(int code);

}  // namespace quilclient
