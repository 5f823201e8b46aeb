#include "tools/common/connected_clients.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "platform/pps/ppsparse.hpp"
#include "platform/root/root.hpp"

namespace {

std::string programOf(pid_t process) {
    std::ifstream name("/proc/" + std::to_string(process) + "/comm");
    std::string program;
    std::getline(name, program);
    return program;
}

int readAll(const std::string& path, std::string* text) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return errno;
    }
    char part[65536];
    ssize_t count = 0;
    while ((count = read(descriptor, part, sizeof part)) > 0) {
        text->append(part, static_cast<std::size_t>(count));
    }
    const int error = count < 0 ? errno : 0;
    close(descriptor);
    return error;
}

}  // namespace

int readConnectedClients(const std::string& path, std::vector<ConnectedClient>* clients) {
    std::string text;
    const int error = readAll(platformPath(path) + "?clients", &text);
    if (error != 0) {
        return error;
    }
    const char* cursor = text.data();
    pps_line_t line;
    for (pps_result_t result = PPS_OBJECT; result != PPS_END;) {
        result = ppsparse(&cursor, text.data() + text.size(), &line);
        if (result != PPS_ATTRIBUTE_CODED) {
            continue;
        }
        const auto client = nlohmann::json::parse(line.value, nullptr, false);
        if (client.is_object()) {
            const auto process = client.value("pid", pid_t{0});
            clients->push_back({std::strtoull(std::string(line.name).c_str(), nullptr, 10),
                                client.value("uid", uid_t{0}), client.value("gid", gid_t{0}),
                                process, programOf(process)});
        }
    }
    return 0;
}

std::string userWithName(uid_t user) {
    const passwd* entry = getpwuid(user);
    return std::to_string(user) +
           (entry == nullptr ? "" : std::string(" (") + entry->pw_name + ")");
}
