#include "ppsd/store/object_name.hpp"

#include <algorithm>
#include <cerrno>

#include "ppsd/store/limits.hpp"

namespace {

bool isControl(char byte) {
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || code == 0x7F;
}

bool addOption(std::string_view option, OpenOptions& options) {
    if (option == "wait") {
        options.wait = true;
    } else if (option == "delta") {
        options.delta = true;
    } else if (option == "server") {
        options.server = true;
    } else if (option == "clients") {
        options.clients = true;
    } else {
        return false;
    }
    return true;
}

}  // namespace

int parseObjectName(std::string_view text, ObjectName& parsed) {
    const std::size_t mark = text.find('?');
    parsed = {text.substr(0, mark), {}};
    if (parsed.name.empty() || std::any_of(parsed.name.begin(), parsed.name.end(), isControl)) {
        return EINVAL;
    }
    if (parsed.name.size() > kNameMaxBytes) {
        return ENAMETOOLONG;
    }
    for (std::size_t at = mark; at != std::string_view::npos;) {
        const std::size_t comma = text.find(',', at + 1);
        const std::size_t length = comma == std::string_view::npos ? comma : comma - at - 1;
        if (!addOption(text.substr(at + 1, length), parsed.options)) {
            return EINVAL;
        }
        at = comma;
    }
    return 0;
}
