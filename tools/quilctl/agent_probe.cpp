// The request is one that the agent answers on the spot, whatever its push servers do, and that
// changes nothing: it asks for the channel of an application that cannot have a session. Any answer
// to it will do.

#include "tools/quilctl/agent_probe.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "platform/pps/decoder.hpp"
#include "platform/root/root.hpp"
#include "tools/common/abandonable.hpp"
#include "tools/common/terminal.hpp"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kRequest = "queryChannel";

// Nobody can have guessed it, so no session has it.
std::string applicationWithoutSession() {
    constexpr std::size_t kRandomBytes = 18;
    char bytes[kRandomBytes] = {};
    static_cast<void>(!getrandom(bytes, sizeof bytes, 0));
    return "quilctl-status-check-" + encodeBase64({bytes, sizeof bytes});
}

bool isAnswer(const std::string& message, const std::string& id) {
    pps_decoder_t decoder;
    pps_decoder_initialize(&decoder, message.c_str());
    pps_decoder_push(&decoder, nullptr);
    std::string answered;
    pps_decoder_get_string(&decoder, "id", &answered);
    return answered == id;
}

// Messages travel whole, so each read that gives something gives at least one, whose end is where
// the next "@" begins a line.
bool holdsAnswer(const std::string& text, const std::string& id) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find("\n@", at), text.size() - 1) + 1;
        if (isAnswer(text.substr(at, end - at), id)) {
            return true;
        }
        at = end;
    }
    return false;
}

ProbeResult await(int connection, const std::string& id, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{connection, POLLIN, 0};
        const int ready =
            poll(&entry, 1, static_cast<int>(std::clamp<long long>(left.count() + 1, 0, INT_MAX)));
        if (ready == 0) {
            return {ProbeResult::Silent, ""};
        }
        std::string text(64 * 1024, '\0');
        const ssize_t count = read(connection, text.data(), text.size());
        const int error = errno;
        if (count == 0 || (count < 0 && error != EAGAIN && error != EINTR)) {
            return {ProbeResult::HungUp, count == 0 ? "" : std::strerror(error)};
        }
        text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        if (holdsAnswer(text, id)) {
            return {ProbeResult::Answered, ""};
        }
    }
}

ProbeResult ask(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    const std::string path = platformPath("/pps/services/push/ipc") + "?wait";
    const int connection = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (connection < 0) {
        return {ProbeResult::Refused, std::strerror(errno)};
    }
    const std::string app = applicationWithoutSession();
    const std::string text = std::string("msg::") + kRequest + "\nid::" + app +
                             "\ndat:json:{\"providerApplicationId\":\"" + app + "\"}\n";
    if (write(connection, text.data(), text.size()) < 0) {
        const int error = errno;
        return {error == EPIPE ? ProbeResult::HungUp : ProbeResult::Refused, std::strerror(error)};
    }
    return await(connection, app, deadline);
}

}  // namespace

ProbeResult probeAgent(std::chrono::milliseconds limit) {
    // The agent's silence and the object service's are told apart by who gives up first.
    constexpr std::chrono::milliseconds kHandOver{500};
    const std::optional<std::string> seen = runAbandonable(limit + kHandOver, [limit] {
        const ProbeResult result = ask(limit);
        return std::to_string(result.outcome) + " " + result.problem;
    });
    if (!seen) {
        return {ProbeResult::Abandoned, ""};
    }
    const std::size_t blank = seen->find(' ');
    return {static_cast<ProbeResult::Outcome>(std::stoi(seen->substr(0, blank))),
            seen->substr(blank + 1)};
}
