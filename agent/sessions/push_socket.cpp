// The one place where a kept push connection is closed.

#include "agent/sessions/push_socket.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "agent/support/log.hpp"

QuilPushSocket::QuilPushSocket(std::string pushId, int socket)
    : m_pushId(std::move(pushId)), m_socket(socket) {}

QuilPushSocket::~QuilPushSocket() {
    if (m_socket != -1 && close(m_socket) != 0) {
        QUIL_LOG(LOG_LEVEL_ERROR, "pushId[%s]: Error closing socket[%d]", m_pushId.c_str(),
                 m_socket.load());
    }
}

std::optional<std::chrono::milliseconds> QuilPushSocket::hungUpFor() const {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(m_socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
        return std::nullopt;
    }
    const bool isHungUp = info.tcpi_state == TCP_CLOSE_WAIT || info.tcpi_state == TCP_CLOSE;
    // Nothing comes from a sender that has hung up; its last segment was the one that said so.
    return isHungUp ? std::optional(std::chrono::milliseconds(info.tcpi_last_ack_recv))
                    : std::nullopt;
}
