// Groups first, the user last: once the user id is dropped, the group calls would be refused.

#include "agent/process/credentials.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

// Reads a number at *at and moves *at behind it. False with EINVAL when it is no 32-bit id.
bool readId(const char** at, std::uint32_t* id) {
    char* end = nullptr;
    // Wider than a long, which holds no 32-bit id on every processor.
    const long long number = std::strtoll(*at, &end, 0);
    *at = end;
    if (number < 0 || number > static_cast<long long>(UINT32_MAX)) {
        errno = EINVAL;
        return false;
    }
    *id = static_cast<std::uint32_t>(number);
    return true;
}

// `at` stands behind the ':'.
int setGroups(const char* at) {
    const long mostGroups = sysconf(_SC_NGROUPS_MAX);
    std::uint32_t group = 0;
    if (!readId(&at, &group) || setgid(group) != 0) {
        return -1;
    }
    std::vector<gid_t> groups;
    while (static_cast<long>(groups.size()) < mostGroups && *at == ',') {
        ++at;
        if (!readId(&at, &group)) {
            return -1;
        }
        groups.push_back(group);
    }
    return setgroups(groups.size(), groups.data());
}

int setNumericCredentials(const char* spec) {
    const char* at = spec;
    std::uint32_t user = 0;
    if (!readId(&at, &user)) {
        return -1;
    }
    // Whatever else follows the user id leaves the groups as they are.
    if (*at == ':' && setGroups(at + 1) != 0) {
        return -1;
    }
    return setuid(user) == 0 ? 0 : -1;
}

int setNamedCredentials(const char* name) {
    const passwd* entry = getpwnam(name);
    if (entry == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const uid_t user = entry->pw_uid;
    const gid_t group = entry->pw_gid;
    const bool done = setgid(group) == 0 && initgroups(name, group) == 0 && setuid(user) == 0;
    return done ? 0 : -1;
}

}  // namespace

int setCredentials(const char* spec) {
    const bool isNumeric = std::isdigit(static_cast<unsigned char>(spec[0])) != 0;
    return isNumeric ? setNumericCredentials(spec) : setNamedCredentials(spec);
}
