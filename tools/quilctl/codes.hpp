// The numbers that people meet, in three tables: the same number means another thing in each, so
// what counts is where it was seen.

#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "tools/common/exit_status.hpp"

enum class CodeTable {
    Reply,   // "err" of a reply, and the client library's own below 0
    Server,  // behind "rc=" in a push server's answer
    Curl     // of libcurl, in the agent's log
};

struct CodeEntry {
    CodeTable table;
    int code;
    std::string_view origin;    // who sets it
    std::string_view meaning;   // one sentence
    std::string_view nextStep;  // what to do about it
};

// All that are known by number: table by table, each in ascending order.
std::vector<CodeEntry> allCodes();

// What the number means in each table in which it can stand.
std::vector<CodeEntry> meaningsOf(int code);

// quilctl codes: explains `code`, or without one all that are known by number.
ExitStatus explainCodes(std::optional<int> code, bool json);
