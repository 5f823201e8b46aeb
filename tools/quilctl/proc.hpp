// What /proc tells about processes and sockets.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

// A running agent.
struct AgentProcess {
    pid_t pid = 0;
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;  // supplementary ones
    bool isStopped = false;     // by a signal or a debugger
    bool isRootKnown = true;    // else its QUIL_ROOT cannot be seen
};

// A TCP socket of this machine.
struct TcpSocket {
    std::uint16_t port = 0;  // its own
    bool isListening = false;
    bool isHeld = false;      // connected, or half closed by the other side
    bool isPeerGone = false;  // the latter: whoever was there has hung up, or at least ended
    uid_t user = 0;
    unsigned long inode = 0;  // as /proc/PID/fd names it; 0 before it was accepted
    std::string ends;         // both addresses, as the kernel writes them
};

// A socket that a process has open.
struct OpenSocket {
    int descriptor = -1;  // its number there
    unsigned long inode = 0;
};

std::vector<TcpSocket> readTcpSockets();

// Appends the sockets that a process has open. False when this user may not look: of a process that
// changed its user, only root may.
bool readOpenSockets(pid_t process, std::vector<OpenSocket>* sockets);

// A process that has the socket open, 0 when none can be seen.
pid_t findHolder(unsigned long inode);

// When a process was started, by the clock of files; the beginning of time when it is gone.
std::chrono::system_clock::time_point startOf(pid_t process);

// The name of a process, "" when it is gone.
std::string programOf(pid_t process);

// Processes with this name whose QUIL_ROOT is ours, or cannot be seen.
std::vector<AgentProcess> findProcesses(const std::string& program);

// Those that can be meant: where the QUIL_ROOT of some cannot be seen and `owner` serves their
// object, those that cannot be the server are left out.
std::vector<AgentProcess> withoutStrangers(std::vector<AgentProcess> agents, uid_t owner);
