// How a channel stands, in words for people.

#pragma once

#include <string>

#include "quilclient/channel.hpp"

constexpr int kHighestPort = 65535;

// Why nobody can push over a channel that the agent has, and what to do; "" when its port is
// listened on, and where there is no channel.
std::string describeDeafChannel(const quilclient::ChannelState& channel);

// The channel in one sentence.
std::string describeChannel(const quilclient::ChannelState& channel);
