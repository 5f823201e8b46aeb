#include "platform/pps/ppsparse.hpp"

#include <cstring>

namespace {

pps_result_t parseAttribute(std::string_view text, pps_line_t* line) {
    const std::size_t first = text.find(':');
    const std::size_t second = first == std::string_view::npos ? first : text.find(':', first + 1);
    if (second == std::string_view::npos || first == 0) {
        return PPS_MALFORMED;
    }
    line->name = text.substr(0, first);
    line->encoding = text.substr(first + 1, second - first - 1);
    line->value = text.substr(second + 1);
    return line->encoding.empty() ? PPS_ATTRIBUTE : PPS_ATTRIBUTE_CODED;
}

pps_result_t parseLine(std::string_view text, pps_line_t* line) {
    if (text.empty()) {
        return PPS_MALFORMED;
    }
    if (text.front() == '@') {
        line->name = text;
        return PPS_OBJECT;
    }
    if (text.size() > 1 && (text.front() == '+' || text.front() == '-') && text[1] == '@') {
        line->name = text.substr(1);
        return text.front() == '+' ? PPS_OBJECT_CREATED : PPS_OBJECT_DELETED;
    }
    if (text.front() == '-') {
        line->name = text.substr(1);
        const bool isName = !line->name.empty() && line->name.find(':') == std::string_view::npos;
        return isName ? PPS_ATTRIBUTE_REMOVED : PPS_MALFORMED;
    }
    return parseAttribute(text, line);
}

}  // namespace

pps_result_t ppsparse(const char** cursor, const char* end, pps_line_t* line) {
    *line = pps_line_t{};
    const auto left = static_cast<std::size_t>(end - *cursor);
    const void* feed = left == 0 ? nullptr : std::memchr(*cursor, '\n', left);
    if (feed == nullptr) {
        line->incomplete = left != 0;
        return PPS_END;
    }
    const auto* lineEnd = static_cast<const char*>(feed);
    const std::string_view text(*cursor, static_cast<std::size_t>(lineEnd - *cursor));
    *cursor = lineEnd + 1;
    return parseLine(text, line);
}
