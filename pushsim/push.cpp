#include "pushsim/push.hpp"

namespace {

constexpr std::string_view kLineEnd = "\r\n";

std::string assemble(std::string_view firstLine, const PushHead& head, std::string_view data) {
    std::string push;
    const auto addLine = [&push](std::string_view line) { push.append(line).append(kLineEnd); };
    addLine(firstLine);
    if (head.contentLength) {
        addLine("Content-Length: " + std::to_string(data.size()));
    }
    if (head.id) {
        addLine("Push-Message-ID: " + *head.id);
    }
    for (const std::string& header : head.headers) {
        addLine(header);
    }
    addLine("");
    return push.append(data);
}

}  // namespace

std::string buildPush(const PushHead& head, std::string_view data) {
    return assemble("POST /push HTTP/1.1", head, data);
}

std::string examplePush() {
    PushHead head;
    head.id = "m1";
    return assemble("POST /x HTTP/1.1", head, "hello");
}

std::vector<std::string> pushWarnings(std::string_view push) {
    std::vector<std::string> warnings;
    if (push.size() > kLongestPushBytes) {
        warnings.push_back("the push has " + std::to_string(push.size()) +
                           " bytes, a device takes at most " + std::to_string(kLongestPushBytes));
    }
    const std::size_t headEnd = push.find("\r\n\r\n");
    if (headEnd == std::string_view::npos) {
        warnings.push_back("no empty line ends the header lines: a device will find no data");
        return warnings;
    }
    const std::size_t dataBytes = push.size() - headEnd - 4;
    if (dataBytes > kLongestDataBytes) {
        warnings.push_back("the data have " + std::to_string(dataBytes) +
                           " bytes, a device takes at most " + std::to_string(kLongestDataBytes));
    }
    if (push.substr(0, headEnd).find('\0') != std::string_view::npos) {
        warnings.push_back("a zero byte in the header lines ends them for a device");
    }
    return warnings;
}
