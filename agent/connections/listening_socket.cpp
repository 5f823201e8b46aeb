// Socket, address, bind, listen: each step says in the log why it failed, and every failure ends in
// the same two lines.

#include "agent/connections/listening_socket.hpp"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "agent/configuration/config_manager.hpp"
#include "agent/connections/owned_socket.hpp"
#include "agent/connections/socket_address.hpp"
#include "agent/support/high_descriptor.hpp"
#include "agent/support/log.hpp"
#include "platform/transport/transport.hpp"

namespace {

constexpr int kBacklog = 5;
constexpr int kHighestPort = 65535;

// Binds and listens. False when it failed; then the socket is still its owner's to close, except
// where noted.
bool openListener(OwnedSocket& socket, int port) {
    const QuilConfigManager& config = *QuilConfigManager::getInstance();
    const std::string transport = config.getTransport();
    const std::string host = config.getListenAddress();
    std::uint32_t length = 0;
    const QuilSocketAddress address =
        port > kHighestPort ? nullptr
                            : addr_lyr(&length, config.getConnectionHandler().c_str(), host.c_str(),
                                       config.getGuid().c_str(), static_cast<std::uint16_t>(port));
    if (address == nullptr) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Failed to create %s server sockaddr: address='%s:%d'",
                 transport.c_str(), host.c_str(), port);
        return false;
    }
    if (transportBind(socket.get(), address.get(), length) != 0) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Failed to bind %s server socket: address='%s:%d', error='%s'",
                 transport.c_str(), host.c_str(), port, strerror(errno));
        return false;
    }
    if (listen(socket.get(), kBacklog) != 0) {
        // The bound socket is left as it is, under a high number. Kept on purpose: the port stays
        // taken, so that nobody else can receive pushes on it.
        QUIL_LOG(LOG_LEVEL_WARNING, "listen socket error");
        moveToHighDescriptor(socket.release());
        return false;
    }
    return true;
}

}  // namespace

int serverIfInit(int port) {
    QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfInit - Opening PPS file and sending register request.");
    OwnedSocket socket(transportSocket(TRANSPORT_FAMILY, SOCK_STREAM, IPPROTO_TCP));
    if (socket.get() == -1) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Failed to create kvtp server socket: errno [%d] error [%s]",
                 errno, strerror(errno));
    } else if (openListener(socket, port)) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfInit - Exit");
        return socket.release();
    }
    QUIL_LOG(LOG_LEVEL_ERROR, "Error opening port %d", port);
    QUIL_LOG(LOG_LEVEL_DEBUG, "serverIfInit - Exit");
    return -1;
}
