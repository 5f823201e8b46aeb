// Which connection asked last for the session of each application, out of the agent's log. Nothing
// else tells: the agent keeps it to itself.

#pragma once

#include <istream>
#include <map>
#include <set>
#include <string>
#include <string_view>

class SessionOwners {
  public:
    // Takes in a log; lines that are none of the agent's are passed over.
    void read(std::istream& log);

    // Of a connection, such as "@ipc.17".
    std::set<std::string> applicationsOf(const std::string& connection) const;

  private:
    void take(std::string_view text);

    std::map<std::string, std::string> m_connections;  // by application id
};
