// Who may act for which application: the key "rules", and the users behind the connections, which
// the object service tells when one is made.
//
// Without the key everybody may. With it a connection may do what the rules grant to its user, and
// one whose user is not known nothing; root may everything, and alone when the file is no good.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "agent/requests/user_lookup.hpp"
#include "platform/rules/rules.hpp"

// Main thread only.
class QuilPermissions {
  public:
    // The one instance, which the first call makes of the configuration and the file that it names:
    // start-up's, as the user who may read them. Lives until the process ends. Null without memory.
    static QuilPermissions* getInstance();
    QuilPermissions(const QuilPermissions&) = delete;
    QuilPermissions& operator=(const QuilPermissions&) = delete;

    // A connection was made by a process of that user and group. Without memory it stays one whose
    // user is not known, which is logged.
    void addConnection(const std::string& clientId, std::uint32_t user, std::uint32_t group);
    void removeConnection(const std::string& clientId);
    // The object service has ended, and all connections with it.
    void forgetConnections();

    // Whether the connection's user may act for the application. The first time that a name is
    // needed for the answer the name service is asked for it, and waited for a little; as long as
    // it has not answered the user has no name. Throws without memory.
    bool mayAct(const std::string& clientId, const std::string& appId);
    // The connection's user in a line of the log: "ann (1000)", "1000", or that it is not known.
    std::string describeUser(const std::string& clientId) const;

  private:
    struct Connection {
        std::uint32_t user = 0;
        std::uint32_t group = 0;
        std::shared_ptr<UserLookup> lookup;  // while it is under way
        std::unique_ptr<Grants> grants;      // once it is done
    };

    QuilPermissions();
    void load();
    void takeRules(const std::string& path);
    // Looks the connection's user up unless that has been done. False while it is not known.
    bool hasGrants(Connection* connection) const;

    bool m_isRestricting = false;
    Rules m_rules;  // never changed after the constructor: threads look things up for them
    std::map<std::string, Connection> m_connections;  // by client id; none without rules
};
