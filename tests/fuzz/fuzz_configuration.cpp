// Any configuration file, and behind a zero byte any object of the SIM: every setting is what a
// plain reading of the file gives, and numbers are within their bounds.

#include <unistd.h>

#include <climits>
#include <map>
#include <string>
#include <vector>

#include "agent/configuration/config_manager.hpp"
#include "agent/support/high_descriptor.hpp"
#include "platform/pps/ppsparse.hpp"
#include "tests/fuzz/bytes.hpp"
#include "tests/support/agent/agent_root.hpp"

namespace {

constexpr std::size_t kLongestLineBytes = 255;
constexpr int kMostDescriptors = 1024;

// The one instance of an agent is made once; this one is made of the present files.
class FreshConfiguration : public QuilConfigManager {};

std::map<std::string, std::string> plainReading(const std::string& text) {
    std::map<std::string, std::string> settings;
    std::size_t start = 0;
    bool isWhole = true;
    while (start < text.size() && isWhole) {
        const std::size_t feed = std::min(text.find('\n', start), text.size());
        std::string line = text.substr(start, feed - start);
        isWhole = line.size() <= kLongestLineBytes;
        line.resize(std::min(line.size(), kLongestLineBytes));
        const std::size_t blank = line.find(' ');
        if (blank != std::string::npos) {
            settings[line.substr(0, blank)] = line.substr(blank + 1);
        }
        start = feed + 1;
    }
    return settings;
}

// The first attribute of that name, in an object that fits the buffer that reads it.
std::string plainImsi(const std::string& text) {
    const char* cursor = text.data();
    pps_line_t line;
    for (;;) {
        switch (ppsparse(&cursor, text.data() + text.size(), &line)) {
            case PPS_END:
                return "";
            case PPS_ATTRIBUTE:
            case PPS_ATTRIBUTE_CODED:
                if (line.name == "imsi") {
                    return std::string(line.value);
                }
                break;
            default:
                break;
        }
    }
}

bool isBounded(const std::string& key) {
    return key == "proxy-port" || key == "http-timeout" || key == "push-timeout";
}

void check(const FreshConfiguration& configuration, const std::string& text) {
    for (const auto& [key, value] : plainReading(text)) {
        require(key.empty() || isBounded(key) || configuration.getValue(key) == value);
        require(configuration.getValueOr(key, "d") ==
                (configuration.getValue(key).empty() ? "d" : configuration.getValue(key)));
        configuration.getIntValue(key, 0);
    }
    require(configuration.getProxyPort() >= 0 && configuration.getProxyPort() <= 65535);
    for (const int seconds : {configuration.getHttpTimeout(), configuration.getPushTimeout()}) {
        require(seconds >= 0 && seconds <= INT_MAX / 1000);
    }
    require(!configuration.getListenAddress().empty());
    require(configuration.getProxyHost()[0] != '\0');
    require(!configuration.getName().empty() && !configuration.getVersion().empty());
    require(!configuration.getTransport().empty() && !configuration.getUser().empty());
    require(!configuration.getConnectionHandler().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const AgentRoot root;
    std::vector<std::string> parts = splitAtZeros(data, size);
    parts.resize(2);
    root.write("/etc/quilagent.conf", parts[0]);
    root.write("/pps/services/cellular/uicc/card0/status_private", parts[1]);
    {
        const FreshConfiguration configuration;
        check(configuration, parts[0]);
        require(parts[1].size() > 15000 || configuration.getImsi() == plainImsi(parts[1]));
    }
    // Of the object, which is left open.
    for (int i = FIRST_HIGH_DESCRIPTOR; i < kMostDescriptors && close(i) == 0; ++i) {
    }
    return 0;
}
