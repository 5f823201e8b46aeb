// Which application is registered, and on which port its device expects pushes.

#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "pushsim/port_range.hpp"

// Application id to port.
using Ports = std::map<std::string, std::uint16_t>;

// The state file: {"applications":{"ID":PORT,...}}. Throws std::runtime_error with a text for a
// person when the file cannot be read or holds something else.
Ports readStateFile(const std::string& path);

// Safe on any thread. With a state file every change is in the file before the call returns, and
// the registrations of an earlier run are taken up from it.
class Registrations {
  public:
    // An empty path: no state file. Throws as readStateFile does.
    Registrations(PortRange range, std::string statePath);

    // The port of the application: the one that it has, else a free one of the range that no other
    // application has. Nothing when there is none left. Throws std::runtime_error when the state
    // cannot be written; nothing has changed then.
    std::optional<std::uint16_t> add(const std::string& application);

    // The same with a port chosen by somebody else.
    void put(const std::string& application, std::uint16_t port);

    // False when the application was not registered.
    bool remove(const std::string& application);

  private:
    // Both with m_mutex held.
    std::optional<std::uint16_t> freePort() const;
    void replace(Ports ports);

    const PortRange m_range;
    const std::string m_statePath;
    std::mutex m_mutex;
    Ports m_ports;  // guarded by m_mutex
};
