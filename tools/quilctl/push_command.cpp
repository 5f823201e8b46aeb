#include "tools/quilctl/push_command.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <map>
#include <system_error>

#include "tools/quilctl/push_length.hpp"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    const std::size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

std::string variableName(const std::string& headerName) {
    std::string name = "QUIL_HEADER_";
    for (const char byte : headerName) {
        const auto code = static_cast<unsigned char>(byte);
        const bool isPlain = code < 0x80 && std::isalnum(code) != 0;
        name += isPlain ? static_cast<char>(std::toupper(code)) : '_';
    }
    return name;
}

// A descriptor that closes itself.
class Descriptor {
  public:
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_number; }
    void reset() {
        if (m_number >= 0) {
            close(m_number);
        }
        m_number = -1;
    }

  private:
    int m_number;
};

std::system_error failure(const char* what, int error) {
    return {error, std::generic_category(), what};
}

pid_t start(const std::string& command, std::vector<std::string> added, int input) {
    // Later entries would lose against inherited ones of the same name, so those are left out.
    std::vector<char*> variables;
    for (std::string& variable : added) {
        variables.push_back(variable.data());
    }
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        const std::string_view name = text.substr(0, text.find('=') + 1);
        const bool isReplaced = std::any_of(added.begin(), added.end(), [&](const auto& entry) {
            return entry.compare(0, name.size(), name) == 0;
        });
        if (!isReplaced) {
            variables.push_back(*variable);
        }
    }
    variables.push_back(nullptr);
    std::string shell = "sh";
    std::string option = "-c";
    std::string text = command;
    char* arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    // A process group of its own, so that what the shell started can be ended with it.
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    pid_t child = -1;
    const int error =
        posix_spawn(&child, "/bin/sh", &actions, &attributes, arguments, variables.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw failure("/bin/sh", error);
    }
    return child;
}

// Feeds `data` into `input` until the child ends (true) or the deadline comes (false).
bool feedUntilEnd(int childHandle, Descriptor& input, const std::string& data,
                  Clock::time_point deadline) {
    std::size_t written = 0;
    for (;;) {
        if (written == data.size()) {
            input.reset();
        }
        pollfd entries[2] = {{childHandle, POLLIN, 0}, {input.get(), POLLOUT, 0}};
        const auto pause = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const auto bounded = std::clamp<std::int64_t>(pause.count(), 0, 60000);
        poll(entries, 2, static_cast<int>(bounded));
        if ((entries[0].revents & POLLIN) != 0) {
            return true;
        }
        if (entries[1].revents != 0) {
            const ssize_t count = write(input.get(), data.data() + written, data.size() - written);
            if (count < 0 && errno != EAGAIN && errno != EINTR) {
                written = data.size();  // the command does not care for the rest
            }
            written += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
    }
}

int statusOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::vector<std::string> pushEnvironment(const std::string& appId, const quilclient::Push& push) {
    std::string all;
    std::map<std::string, std::string> byName;
    for (const quilclient::Header& header : push.headers) {
        const std::string value = trimmed(header.value);
        all += header.name + ": " + value + "\n";
        std::string& entry = byName[variableName(header.name)];
        entry += (entry.empty() ? "" : "\n") + value;
    }
    std::vector<std::string> variables = {
        "QUIL_APP=" + appId,
        "QUIL_PUSH_ID=" + push.id,
        std::string("QUIL_SENDER_WAITS=") + (push.senderWaits ? "1" : "0"),
        std::string("QUIL_DUPLICATE=") + (push.isDuplicate ? "1" : "0"),
        std::string("QUIL_SHORT=") + (isShort(push) ? "1" : "0"),
        "QUIL_HEADERS=" + all};
    for (const auto& [name, value] : byName) {
        variables.push_back(name + "=" + value);
    }
    return variables;
}

std::optional<int> runPushCommand(const std::string& command, const std::string& appId,
                                  const quilclient::Push& push, Clock::time_point deadline) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw failure("pipe", errno);
    }
    Descriptor output(ends[0]);
    Descriptor input(ends[1]);
    fcntl(input.get(), F_SETFL, O_NONBLOCK);
    const pid_t child = start(command, pushEnvironment(appId, push), output.get());
    output.reset();
    const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    const int handleError = errno;
    if (handle.get() >= 0 && feedUntilEnd(handle.get(), input, push.data, deadline)) {
        return statusOf(child);
    }
    kill(-child, SIGKILL);
    statusOf(child);
    if (handle.get() < 0) {
        throw failure("pidfd_open", handleError);
    }
    return std::nullopt;
}
