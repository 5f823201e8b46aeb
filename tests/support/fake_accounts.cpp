// Found by the linker before the C library's own.

#include "tests/support/fake_accounts.hpp"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace {

struct User {
    std::string name;
    std::uint32_t user;
    std::uint32_t group;
};

struct Group {
    std::string name;
    std::uint32_t group;
    std::vector<std::string> members;
};

struct Accounts {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<User> users;
    std::vector<Group> groups;
    int userError = 0;
    int groupError = 0;
    std::size_t entryBytes = 0;
    int userLookups = 0;
    int slow = 0;
};

// Never destroyed: threads may be looking up when the test ends.
Accounts& accounts() {
    static auto* const all = new Accounts();
    return *all;
}

// Copies the name into the caller's buffer. Null when that is too small.
char* place(const std::string& name, char* buffer, std::size_t size) {
    if (size < name.size() + 1 || size < accounts().entryBytes) {
        return nullptr;
    }
    std::memcpy(buffer, name.c_str(), name.size() + 1);
    return buffer;
}

template <typename IsIt>
int findUser(const IsIt& isIt, passwd* entry, char* buffer, std::size_t size, passwd** result) {
    *result = nullptr;
    std::unique_lock lock(accounts().mutex);
    accounts().changed.wait(lock, [] { return accounts().slow == 0; });
    if (accounts().userError != 0) {
        return accounts().userError;
    }
    for (const User& user : accounts().users) {
        if (isIt(user)) {
            entry->pw_name = place(user.name, buffer, size);
            entry->pw_uid = user.user;
            entry->pw_gid = user.group;
            *result = entry->pw_name == nullptr ? nullptr : entry;
            return entry->pw_name == nullptr ? ERANGE : 0;
        }
    }
    return 0;
}

}  // namespace

extern "C" int getpwuid_r(uid_t number, passwd* entry, char* buffer, std::size_t size,
                          passwd** result) {
    {
        const std::lock_guard lock(accounts().mutex);
        ++accounts().userLookups;
    }
    return findUser([number](const User& user) { return user.user == number; }, entry, buffer, size,
                    result);
}

extern "C" int getpwnam_r(const char* name, passwd* entry, char* buffer, std::size_t size,
                          passwd** result) {
    return findUser([name](const User& user) { return user.name == name; }, entry, buffer, size,
                    result);
}

extern "C" int getgrnam_r(const char* name, group* entry, char* buffer, std::size_t size,
                          group** result) {
    *result = nullptr;
    const std::lock_guard lock(accounts().mutex);
    if (accounts().groupError != 0) {
        return accounts().groupError;
    }
    for (const Group& group : accounts().groups) {
        if (group.name == name) {
            entry->gr_name = place(group.name, buffer, size);
            entry->gr_gid = group.group;
            *result = entry->gr_name == nullptr ? nullptr : entry;
            return entry->gr_name == nullptr ? ERANGE : 0;
        }
    }
    return 0;
}

extern "C" int getgrouplist(const char* name, gid_t primary, gid_t* groups, int* count) {
    const std::lock_guard lock(accounts().mutex);
    std::vector<gid_t> found = {primary};
    for (const Group& group : accounts().groups) {
        if (std::find(group.members.begin(), group.members.end(), name) != group.members.end()) {
            found.push_back(group.group);
        }
    }
    const int room = *count;
    *count = static_cast<int>(found.size());
    std::copy_n(found.begin(), std::min<std::size_t>(found.size(), static_cast<std::size_t>(room)),
                groups);
    return *count > room ? -1 : *count;
}

void addFakeUser(const std::string& name, std::uint32_t user, std::uint32_t group) {
    const std::lock_guard lock(accounts().mutex);
    accounts().users.push_back({name, user, group});
}

void addFakeGroup(const std::string& name, std::uint32_t group,
                  const std::vector<std::string>& members) {
    const std::lock_guard lock(accounts().mutex);
    accounts().groups.push_back({name, group, members});
}

void failUserLookups(int error) {
    const std::lock_guard lock(accounts().mutex);
    accounts().userError = error;
}

void failGroupLookups(int error) {
    const std::lock_guard lock(accounts().mutex);
    accounts().groupError = error;
}

void setFakeEntryBytes(std::size_t bytes) {
    const std::lock_guard lock(accounts().mutex);
    accounts().entryBytes = bytes;
}

int countUserLookups() {
    const std::lock_guard lock(accounts().mutex);
    return accounts().userLookups;
}

SlowNameService::SlowNameService() {
    const std::lock_guard lock(accounts().mutex);
    ++accounts().slow;
}

SlowNameService::~SlowNameService() {
    const std::lock_guard lock(accounts().mutex);
    --accounts().slow;
    accounts().changed.notify_all();
}
