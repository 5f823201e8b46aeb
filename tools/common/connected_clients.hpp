// Who has a served object open, as the object service tells it.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct ConnectedClient {
    std::uint64_t id = 0;  // its connection: the tag is "@NAME.ID"
    uid_t user = 0;
    gid_t group = 0;
    pid_t process = 0;
    std::string program;  // the process's name; empty when it is gone or cannot be seen
};

// `path` is absolute, below /pps. 0 or an errno value: EACCES for all but root, the object's owner
// and the user its server runs as; ENOENT when nobody serves it.
int readConnectedClients(const std::string& path, std::vector<ConnectedClient>* clients);

// "USER-ID (USER)", or the number alone for one without a name.
std::string userWithName(uid_t user);
