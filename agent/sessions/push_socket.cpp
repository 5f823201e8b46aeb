// The one place where a kept push connection is closed.

#include "agent/sessions/push_socket.hpp"

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
