// What /proc tells about processes and sockets.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

// A running agent.
struct AgentProcess {
    pid_t pid = 0;
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;  // supplementary ones
};

// A TCP socket of this machine.
struct TcpSocket {
    std::uint16_t port = 0;  // its own
    bool isListening = false;
    bool isHeld = false;  // connected, or half closed by the other side
    uid_t user = 0;
    unsigned long inode = 0;  // as /proc/PID/fd names it
};

// A socket that a process has open.
struct OpenSocket {
    int descriptor = -1;  // its number there
    unsigned long inode = 0;
};

std::vector<TcpSocket> readTcpSockets();

// None when this user may not look: of a process that changed its user, only root may.
std::vector<OpenSocket> readOpenSockets(pid_t process);

// Processes named "quilagent" whose QUIL_ROOT is ours, or cannot be seen.
std::vector<AgentProcess> findAgents();
