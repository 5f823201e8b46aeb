// The configuration as the agent reads it: one name and value a line, split at the first blank,
// nothing trimmed, no comments; a line of more than 255 characters ends the reading.

#include "tools/quilctl/configuration.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "platform/root/root.hpp"

namespace {

struct Key {
    const char* name;
    const char* fallback;
    bool isNumber;
};

constexpr Key kKeys[] = {{"name", "Push Agent", false},
                         {"version", "5.0.0", false},
                         {"user", "44:44,0,320", false},
                         {"proxy-host", "127.0.0.1", false},
                         {"proxy-port", "287", true},
                         {"listen-address", "", false},  // that of proxy-host, filled in below
                         {"allowed-senders", "", false},
                         {"rules", "", false},
                         {"push-timeout", "30", true},
                         {"http-timeout", "0", true},
                         {"guid", "", false},
                         {"transport", "KVTP", false},
                         {"protocol", "HTTP", false},
                         {"prname", "personal", false},
                         {"connection-handler", "defaulthandler", false}};

constexpr const char* kDefault = "default";  // where a value comes from
constexpr std::size_t kMaxLine = 255;

bool isNumber(const std::string& value) {
    return !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
}

class FileReader {
  public:
    explicit FileReader(Configuration& configuration) : m_configuration(configuration) {}

    void read(std::istream& file) {
        for (std::string line; std::getline(file, line);) {
            ++m_number;
            if (line.size() > kMaxLine) {
                problem(
                    "is longer than 255 characters: it is cut, and all lines behind it are "
                    "not read");
                take(line.substr(0, kMaxLine));
                return;
            }
            take(line);
        }
    }

  private:
    void take(const std::string& line) {
        const std::size_t blank = line.find(' ');
        if (blank == std::string::npos) {
            if (!line.empty()) {
                problem("holds no blank between name and value: it is ignored");
            }
            return;
        }
        const std::string key = line.substr(0, blank);
        std::string value = line.substr(blank + 1);
        const auto known = std::find_if(std::begin(kKeys), std::end(kKeys),
                                        [&key](const Key& entry) { return key == entry.name; });
        if (known == std::end(kKeys)) {
            if (key.empty() || key[0] != '#') {
                problem("sets '" + key + "', which the agent does not read");
            }
            return;
        }
        if (!value.empty() && value.back() == '\r') {
            problem("ends in a carriage return, which becomes part of the value");
        } else if (known->isNumber && !value.empty() && !isNumber(value)) {
            problem("sets '" + key + "' to '" + value + "', which is no number");
        }
        for (Setting& setting : m_configuration.settings) {
            if (setting.key == key) {
                // An empty value is the default, also behind another line of the key.
                setting.value = value.empty() ? known->fallback : value;
                setting.source = value.empty() ? kDefault : "line " + std::to_string(m_number);
            }
        }
    }

    void problem(const std::string& words) {
        m_configuration.problems.push_back("line " + std::to_string(m_number) + " " + words);
    }

    Configuration& m_configuration;
    int m_number = 0;
};

// 0 when the file can be read, or errno. Never waits, as opening a pipe would.
int tryToOpen(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) {
        return errno;
    }
    struct stat info {};
    const bool isFile = fstat(file, &info) == 0 && S_ISREG(info.st_mode);
    const bool isFolder = S_ISDIR(info.st_mode);
    close(file);
    return isFile ? 0 : isFolder ? EISDIR : EINVAL;
}

}  // namespace

Configuration readConfiguration() {
    Configuration configuration;
    for (const Key& key : kKeys) {
        configuration.settings.push_back({key.name, key.fallback, kDefault});
    }
    const std::string path = platformPath("/etc/quilagent.conf");
    configuration.error = tryToOpen(path);
    configuration.isFileRead = configuration.error == 0;
    if (configuration.isFileRead) {
        std::ifstream file(path);
        FileReader(configuration).read(file);
    }
    for (Setting& setting : configuration.settings) {
        if (setting.key == "listen-address" && setting.value.empty()) {
            setting.value = settingOf(configuration, "proxy-host");
        }
    }
    return configuration;
}

std::string settingOf(const Configuration& configuration, const std::string& key) {
    for (const Setting& setting : configuration.settings) {
        if (setting.key == key) {
            return setting.value;
        }
    }
    return "";
}
