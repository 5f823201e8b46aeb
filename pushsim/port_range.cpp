#include "pushsim/port_range.hpp"

#include <netinet/in.h>
#include <sys/socket.h>

#include <charconv>
#include <string_view>

#include "pushsim/socket.hpp"

namespace {

bool parsePort(std::string_view text, std::uint16_t* port) {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *port);
    return error == std::errc() && stop == end && *port != 0;
}

}  // namespace

bool parsePortRange(const std::string& text, PortRange* range) {
    const std::string_view all = text;
    const std::size_t dash = all.find('-');
    const std::string_view last = dash == std::string_view::npos ? all : all.substr(dash + 1);
    return parsePort(all.substr(0, dash), &range->from) && parsePort(last, &range->to) &&
           range->from <= range->to;
}

bool isPortFree(std::uint16_t port) {
    const Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // As the device does: connections that are only waiting to be forgotten do not hold a port.
    const int on = 1;
    setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    any.sin_port = htons(port);
    return bind(socket.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0 &&
           listen(socket.get(), 1) == 0;
}
