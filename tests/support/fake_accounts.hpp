// The system's users and groups as a test wants them. A program that compiles fake_accounts.cpp in
// gets these answers from getpwuid_r, getpwnam_r, getgrnam_r and getgrouplist, on all threads.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// There is nobody until somebody is added.
void addFakeUser(const std::string& name, std::uint32_t user, std::uint32_t group);
void addFakeGroup(const std::string& name, std::uint32_t group,
                  const std::vector<std::string>& members = {});

// From now on look-ups of users fail with that error; 0 ends it.
void failUserLookups(int error);
// Likewise of groups by their name.
void failGroupLookups(int error);
// From now on entries need buffers of so many bytes.
void setFakeEntryBytes(std::size_t bytes);

// How many look-ups of users by number there were.
int countUserLookups();

// Holds all look-ups of users in their calls until the object is gone.
class SlowNameService {
  public:
    SlowNameService();
    ~SlowNameService();
    SlowNameService(const SlowNameService&) = delete;
    SlowNameService& operator=(const SlowNameService&) = delete;
};
