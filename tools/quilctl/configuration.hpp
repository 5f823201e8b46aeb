// The configuration in force, read from /etc/quilagent.conf as the agent reads it.

#pragma once

#include <string>
#include <vector>

// One key of the configuration in force.
struct Setting {
    std::string key;
    std::string value;
    std::string source;  // "line 3", or "default"
};

struct Configuration {
    std::vector<Setting> settings;  // all keys that the agent reads
    std::vector<std::string>
        problems;  // lines of the file that are not what they seem; why, in words
    bool isFileRead = false;
    int error = 0;  // why it is not; errno
};

Configuration readConfiguration();

// The value in force of a key.
std::string settingOf(const Configuration& configuration, const std::string& key);
