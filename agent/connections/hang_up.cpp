// The kernel knows since when nothing has come; it is asked, so that nobody has to watch the
// connection.

#include "agent/connections/hang_up.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "agent/configuration/config_manager.hpp"

namespace {

// Where no time is set for a push to come in.
constexpr std::chrono::seconds kDefaultPatience{30};

}  // namespace

std::chrono::milliseconds patienceWithHungUp() {
    const std::chrono::seconds timeout(QuilConfigManager::getInstance()->getPushTimeout());
    return timeout.count() > 0 ? timeout : kDefaultPatience;
}

bool hasHungUpFor(int socket, std::chrono::milliseconds time) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
        return false;
    }
    const bool isHungUp = info.tcpi_state == TCP_CLOSE_WAIT || info.tcpi_state == TCP_CLOSE;
    // Nothing comes from a sender that has hung up; its last segment was the one that said so.
    return isHungUp && std::chrono::milliseconds(info.tcpi_last_ack_recv) >= time;
}
