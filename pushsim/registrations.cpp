#include "pushsim/registrations.hpp"

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <utility>

#include "pushsim/files.hpp"

namespace {

using Json = nlohmann::json;

std::string toStateText(const Ports& ports) {
    Json applications = Json::object();
    for (const auto& [application, port] : ports) {
        applications[application] = port;
    }
    // An id with bytes that are no UTF-8 must not keep the others out of the file.
    return Json{{"applications", applications}}.dump(2, ' ', false,
                                                     Json::error_handler_t::replace) +
           "\n";
}

}  // namespace

Ports readStateFile(const std::string& path) {
    const std::string text = readInput(path);
    try {
        return Json::parse(text).at("applications").get<Ports>();
    } catch (const Json::exception& error) {
        throw std::runtime_error(path + " is no state file: " + error.what());
    }
}

Registrations::Registrations(PortRange range, std::string statePath)
    : m_range(range), m_statePath(std::move(statePath)) {
    if (m_statePath.empty()) {
        return;
    }
    if (std::filesystem::exists(m_statePath)) {
        m_ports = readStateFile(m_statePath);
    }
    // Also shows at once that the file can be written.
    replaceFile(m_statePath, toStateText(m_ports));
}

std::optional<std::uint16_t> Registrations::add(const std::string& application) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_ports.find(application);
    if (found != m_ports.end()) {
        return found->second;
    }
    const auto port = freePort();
    if (port) {
        Ports ports = m_ports;
        ports[application] = *port;
        replace(std::move(ports));
    }
    return port;
}

void Registrations::put(const std::string& application, std::uint16_t port) {
    const std::lock_guard lock(m_mutex);
    Ports ports = m_ports;
    ports[application] = port;
    replace(std::move(ports));
}

bool Registrations::remove(const std::string& application) {
    const std::lock_guard lock(m_mutex);
    Ports ports = m_ports;
    if (ports.erase(application) == 0) {
        return false;
    }
    replace(std::move(ports));
    return true;
}

std::optional<std::uint16_t> Registrations::freePort() const {
    std::set<std::uint16_t> given;
    for (const auto& [application, port] : m_ports) {
        given.insert(port);
    }
    for (unsigned candidate = m_range.from; candidate <= m_range.to; ++candidate) {
        const auto port = static_cast<std::uint16_t>(candidate);
        if (!given.contains(port) && isPortFree(port)) {
            return port;
        }
    }
    return std::nullopt;
}

void Registrations::replace(Ports ports) {
    if (!m_statePath.empty()) {
        replaceFile(m_statePath, toStateText(ports));
    }
    m_ports = std::move(ports);
}
