#include "tests/support/loopback.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

int boundPort(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

bool bindLoopback(int socket, int port) {
    const sockaddr_in address = loopback(port);
    return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

int connectLoopback(int port) {
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(connection);
        return -1;
    }
    return connection;
}

int freePort() {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bindLoopback(probe);
    const int port = boundPort(probe);
    close(probe);
    return port;
}

// The kernel's table tells it without a connection that somebody would have to accept.
bool isListening(int port) {
    char wanted[8];
    std::snprintf(wanted, sizeof wanted, ":%04X", static_cast<unsigned>(port));
    std::ifstream table("/proc/net/tcp");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string number;
        std::string local;
        std::string remote;
        std::string state;
        words >> number >> local >> remote >> state;
        if (state == "0A" && local.ends_with(wanted)) {
            return true;
        }
    }
    return false;
}
