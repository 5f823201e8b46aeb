#include "tools/quilctl/push_length.hpp"

#include <charconv>
#include <limits>
#include <string>
#include <system_error>

namespace {

std::uint64_t leadingNumber(const std::string& text) {
    const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
    std::uint64_t number = 0;
    if (start == std::string::npos) {
        return number;
    }
    const auto result = std::from_chars(text.data() + start, text.data() + text.size(), number);
    return result.ec == std::errc::result_out_of_range ? std::numeric_limits<std::uint64_t>::max()
                                                       : number;
}

}  // namespace

std::optional<std::uint64_t> announcedBytes(const quilclient::Push& push) {
    std::optional<std::uint64_t> announced;
    for (const quilclient::Header& header : push.headers) {
        if (header.name == "Content-Length") {
            announced = leadingNumber(header.value);
        }
    }
    return announced;
}

bool isShort(const quilclient::Push& push) {
    return push.data.size() < announcedBytes(push).value_or(0);
}
