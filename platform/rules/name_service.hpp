// Users and groups as the system's name service knows them. A look-up may take as long as the
// service likes, seconds where it asks the network. Any thread.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/rules/rules.hpp"

// What the name service knows of a user: the name, or the number as a text where there is no name
// or one that is a number itself; the user's groups, `group` among them where it is given; and
// which of `namedGroups` they are. Nothing when the name service failed: another try may succeed.
std::optional<Person> lookUpPerson(std::uint32_t user, std::optional<std::uint32_t> group,
                                   const std::vector<std::string>& namedGroups);

// The number of the user called `name`, which is never taken for a number itself. Nothing when
// there is none, or the name service failed.
std::optional<std::uint32_t> userNumber(const std::string& name);

// Whether there is a group of that name. Nothing when the name service failed.
std::optional<bool> isGroup(const std::string& name);
