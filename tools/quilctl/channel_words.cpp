#include "tools/quilctl/channel_words.hpp"

namespace {

std::string placeOf(const quilclient::ChannelState& channel) {
    return "on port " + std::to_string(channel.port) + ", token " + channel.token +
           ", push server " + channel.ppgUrl;
}

}  // namespace

std::string describeDeafChannel(const quilclient::ChannelState& channel) {
    if (!channel.isRegistered || channel.isListening) {
        return "";
    }
    if (channel.port <= 0) {
        return "channel without a port: the push server gave none (it ended the registration "
               "without one), so nobody can push; create the channel anew once the push server is "
               "mended";
    }
    if (channel.port > kHighestPort) {
        return "channel without a port: the push server gave " + std::to_string(channel.port) +
               ", which is not a port, so nobody can push; create the channel anew once the push "
               "server is mended";
    }
    return "channel without a listener " + placeOf(channel) +
           ": nobody takes what is pushed; see quilctl status --check";
}

std::string describeChannel(const quilclient::ChannelState& channel) {
    if (!channel.isRegistered) {
        return channel.ppgUrl.empty()
                   ? "no channel"
                   : "no channel; the last one was asked for at " + channel.ppgUrl;
    }
    return channel.isListening ? "channel stands " + placeOf(channel)
                               : describeDeafChannel(channel);
}
