#include "tools/ppsctl/object_text.hpp"

#include "platform/pps/ppsparse.hpp"
#include "platform/pps/text.hpp"

namespace {

// "name=value" as a line; anything else as it stands.
std::string lineOf(const std::string& attribute) {
    const std::size_t equals = attribute.find('=');
    const std::size_t colon = attribute.find(':');
    if (equals == std::string::npos || colon < equals || attribute.front() == '-') {
        return attribute + "\n";
    }
    const std::string name = attribute.substr(0, equals);
    const std::string value = attribute.substr(equals + 1);
    return ppsNeedsEscapes(value) ? name + ":c:" + ppsEscapeC(value) + "\n"
                                  : name + "::" + value + "\n";
}

// True when `line` is exactly one attribute line.
bool isAttributeLine(const std::string& line) {
    const char* cursor = line.data();
    const char* end = cursor + line.size();
    pps_line_t parsed;
    const pps_result_t result = ppsparse(&cursor, end, &parsed);
    const bool isAttribute =
        result == PPS_ATTRIBUTE || result == PPS_ATTRIBUTE_CODED || result == PPS_ATTRIBUTE_REMOVED;
    return isAttribute && cursor == end && !parsed.name.empty();
}

}  // namespace

std::optional<std::string> attributeLines(const std::vector<std::string>& attributes,
                                          std::string* error) {
    std::string text;
    for (const std::string& attribute : attributes) {
        const std::string line = attribute.empty() ? "" : lineOf(attribute);
        if (!isAttributeLine(line)) {
            *error = "'" + attribute + "' is none of name=value, name:encoding:value and -name";
            return std::nullopt;
        }
        text += line;
    }
    return text;
}

nlohmann::ordered_json objectAsJson(const std::string& text) {
    const std::string complete = !text.empty() && text.back() != '\n' ? text + "\n" : text;
    const char* cursor = complete.data();
    nlohmann::ordered_json object = {{"object", ""}};
    object["attributes"] = nlohmann::ordered_json::array();
    for (;;) {
        pps_line_t line;
        switch (ppsparse(&cursor, complete.data() + complete.size(), &line)) {
            case PPS_END:
                return object;
            case PPS_OBJECT:
                object["object"] = line.name;
                break;
            case PPS_OBJECT_CREATED:
                object["object"] = "+" + std::string(line.name);
                break;
            case PPS_OBJECT_DELETED:
                object["object"] = "-" + std::string(line.name);
                break;
            case PPS_ATTRIBUTE:
            case PPS_ATTRIBUTE_CODED:
                object["attributes"].push_back(
                    {{"name", line.name}, {"encoding", line.encoding}, {"value", line.value}});
                break;
            case PPS_ATTRIBUTE_REMOVED:
                object["removed"].push_back(line.name);
                break;
            case PPS_MALFORMED:
                break;
        }
    }
}
