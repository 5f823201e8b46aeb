// Every call gets a buffer that grows until the entry fits, since groups may have any number of
// members.

#include "platform/rules/name_service.hpp"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace {

constexpr std::size_t kFirstBufferBytes = 4096;
constexpr std::size_t kLargestBufferBytes = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kFirstGroups = 64;
constexpr std::size_t kMostGroups = 65536;  // more than Linux gives to a process

// "%u" has to fit into a pattern; no system has longer names.
constexpr std::size_t kLongestNameBytes = 256;

enum class Outcome { Found, Absent, Failed };

// The C library says in many ways that there is no such entry.
bool isAbsence(int error) {
    return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

// Calls a function of the getpwnam_r family as call(entry, buffer, size, result). What it found
// points into `buffer`.
template <typename Entry, typename Call>
Outcome lookUp(const Call& call, Entry* entry, std::vector<char>* buffer) {
    buffer->resize(kFirstBufferBytes);
    for (;;) {
        Entry* result = nullptr;
        const int error = call(entry, buffer->data(), buffer->size(), &result);
        if (error == 0 && result != nullptr) {
            return Outcome::Found;
        }
        if (error == ERANGE && buffer->size() < kLargestBufferBytes) {
            buffer->resize(buffer->size() * 4);
        } else if (error != EINTR) {
            return isAbsence(error) ? Outcome::Absent : Outcome::Failed;
        }
    }
}

Outcome findUser(std::uint32_t number, passwd* entry, std::vector<char>* buffer) {
    return lookUp([number](passwd* to, char* bytes, std::size_t size,
                           passwd** result) { return getpwuid_r(number, to, bytes, size, result); },
                  entry, buffer);
}

Outcome findGroup(const std::string& name, std::uint32_t* number) {
    group entry{};
    std::vector<char> buffer;
    const Outcome outcome = lookUp(
        [&name](group* to, char* bytes, std::size_t size, group** result) {
            return getgrnam_r(name.c_str(), to, bytes, size, result);
        },
        &entry, &buffer);
    if (outcome == Outcome::Found) {
        *number = entry.gr_gid;
    }
    return outcome;
}

std::vector<std::uint32_t> groupsOf(const char* name, gid_t primary) {
    std::vector<gid_t> groups(kFirstGroups);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(name, primary, groups.data(), &count) == -1 &&
           groups.size() < kMostGroups) {
        // `count` says how many there are; should it not, twice as many are tried.
        const std::size_t wanted = std::max(static_cast<std::size_t>(count), groups.size() * 2);
        groups.resize(std::min(wanted, kMostGroups));
        count = static_cast<int>(groups.size());
    }
    groups.resize(std::min(static_cast<std::size_t>(count), groups.size()));
    return {groups.begin(), groups.end()};
}

bool isName(std::string_view name) {
    return !name.empty() && name.size() <= kLongestNameBytes && !isAllDigits(name);
}

}  // namespace

std::optional<Person> lookUpPerson(std::uint32_t user, std::optional<std::uint32_t> group,
                                   const std::vector<std::string>& namedGroups) {
    Person person{user, std::to_string(user), {}, {}};
    passwd entry{};
    std::vector<char> buffer;
    const Outcome outcome = findUser(user, &entry, &buffer);
    if (outcome == Outcome::Failed) {
        return std::nullopt;
    }
    if (outcome == Outcome::Found) {
        if (isName(entry.pw_name)) {
            person.name = entry.pw_name;
        }
        person.groups = groupsOf(entry.pw_name, entry.pw_gid);
    }
    if (group) {
        person.groups.push_back(*group);
    }
    for (const std::string& name : namedGroups) {
        std::uint32_t number = 0;
        const Outcome found = findGroup(name, &number);
        if (found == Outcome::Failed) {
            return std::nullopt;
        }
        if (found == Outcome::Found &&
            std::find(person.groups.begin(), person.groups.end(), number) != person.groups.end()) {
            person.groupNames.push_back(name);
        }
    }
    return person;
}

std::optional<std::uint32_t> userNumber(const std::string& name) {
    passwd entry{};
    std::vector<char> buffer;
    const Outcome outcome = lookUp(
        [&name](passwd* to, char* bytes, std::size_t size, passwd** result) {
            return getpwnam_r(name.c_str(), to, bytes, size, result);
        },
        &entry, &buffer);
    return outcome == Outcome::Found ? std::optional<std::uint32_t>(entry.pw_uid) : std::nullopt;
}

std::optional<bool> isGroup(const std::string& name) {
    std::uint32_t number = 0;
    const Outcome outcome = findGroup(name, &number);
    return outcome == Outcome::Failed ? std::nullopt
                                      : std::optional<bool>(outcome == Outcome::Found);
}
