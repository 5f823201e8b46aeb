// Something that is wrong, in words.

#pragma once

#include <string>
#include <vector>

struct Finding {
    // A warning leaves pushes arriving today; anything else keeps some or all of them away.
    bool isWarning = false;
    std::string name;  // one short name per kind of finding, for scripts
    std::string words;
    std::string next;
};

using Findings = std::vector<Finding>;

// A problem, and a warning.
inline void add(Findings& findings, const char* name, const std::string& words,
                const std::string& next) {
    findings.push_back({false, name, words, next});
}

inline void warn(Findings& findings, const char* name, const std::string& words,
                 const std::string& next) {
    findings.push_back({true, name, words, next});
}
