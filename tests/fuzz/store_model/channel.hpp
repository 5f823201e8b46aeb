// What waits for the server of an object, and whose message it gets next: users take turns, of a
// user its processes, and of a process its clients.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace model {

struct File;

struct Opener {
    uid_t user = 0;
    gid_t group = 0;
    pid_t process = 0;
};

struct Channel {
    struct Pending {
        std::string text;
        std::uint64_t client;
        bool isMessage;
        Opener opener;
    };

    std::string name;
    bool hasServer = true;
    std::map<std::uint64_t, File*> clients;
    std::vector<Pending> pending;  // as they came

    void add(const Pending& item);
    Pending takeNext();

    // What a client leaves that is gone.
    void leave(std::uint64_t client, const Pending& notice);

    // The server is gone.
    void end();

  private:
    // In which order users, their processes and the clients of these have a turn; by key of whose
    // turn it is part.
    using Ring = std::vector<std::uint64_t>;

    // Takes away what is at `index`; those who have nothing more lose their places, and the others
    // stay, or go to the end after a turn.
    Pending take(std::size_t index, bool isTurn);

    std::map<std::string, Ring> m_rings;
};

}  // namespace model
