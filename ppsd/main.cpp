// ppsd: serves objects as files. See the manual page for the command line.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "platform/root/root.hpp"
#include "ppsd/fuse/loop.hpp"
#include "ppsd/fuse/mount_point.hpp"
#include "ppsd/store/limits.hpp"
#include "ppsd/store/store.hpp"

namespace {

struct CommandLine {
    std::string store = platformPath("/var/lib/ppsd");
    std::string mountPoint = platformPath("/pps");
    bool daemon = false;
    Shares shares = {kUserMemoryBytes, kUserFiles, kUserObjects, kUserStoredBytes};
};

void complain(const std::string& text) {
    std::fprintf(stderr, "ppsd: %s\n", text.c_str());
}

// CLI11 itself takes a number that is negative or too large for another one, and leading zeros for
// an octal one.
CLI::Validator wholeNumber() {
    return {[](std::string& text) -> std::string {
                std::size_t value = 0;
                const char* end = text.data() + text.size();
                const auto [stop, error] = std::from_chars(text.data(), end, value);
                if (error != std::errc{} || stop != end) {
                    return "must be a whole number from 0 to " +
                           std::to_string(std::numeric_limits<std::size_t>::max()) +
                           ", without a unit";
                }
                text = std::to_string(value);
                return "";
            },
            ""};
}

// Tells a service manager that set NOTIFY_SOCKET that the mount is live.
void notifyManager() {
    const char* path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || path[0] == '\0') {
        return;
    }
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path) {
        complain("NOTIFY_SOCKET is too long");
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, length);
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const UniqueFd notifier(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    static constexpr char kReady[] = "READY=1";
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    if (!notifier || sendto(notifier.get(), kReady, sizeof kReady - 1, MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr*>(&address), size) < 0) {
        complain(std::string("cannot tell the service manager: ") + std::strerror(errno));
    }
}

// The daemon's way to the background. The command waits for one byte, which says that the mount is
// live; when the pipe closes without it, starting failed and the reason is on standard error.
class Background {
  public:
    // Splits the process in two. In the one that shall return to the shell, gives true and its exit
    // status.
    bool split(int& exitStatus) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            complain(std::string("cannot make a pipe: ") + std::strerror(errno));
            exitStatus = 1;
            return true;
        }
        UniqueFd reader(ends[0]);
        m_writer = UniqueFd(ends[1]);
        const pid_t child = fork();
        if (child == 0) {
            setsid();
            return false;
        }
        m_writer.reset();
        char byte = 0;
        ssize_t got = -1;
        do {
            got = child < 0 ? 0 : read(reader.get(), &byte, 1);
        } while (got < 0 && errno == EINTR);
        exitStatus = got == 1 ? 0 : 1;
        return true;
    }

    // Leaves the terminal and the working directory alone, then lets the command return.
    bool release() {
        openlog("ppsd", LOG_PID, LOG_DAEMON);
        const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
        if (!null || chdir("/") != 0 || dup2(null.get(), STDIN_FILENO) < 0 ||
            dup2(null.get(), STDOUT_FILENO) < 0 || dup2(null.get(), STDERR_FILENO) < 0) {
            return false;
        }
        const bool isTold = write(m_writer.get(), "", 1) == 1;
        m_writer.reset();
        return isTold;
    }

  private:
    UniqueFd m_writer;
};

int serve(const CommandLine& commandLine, Background* background) {
    MountPoint mountPoint(absolutePath(commandLine.mountPoint));
    const std::string storePath = absolutePath(commandLine.store);
    Accounts accounts(commandLine.shares);
    OpenFiles files;
    // Called on the threads of the service and of the disk, on that one only once there is a mount.
    bool isInBackground = false;
    Store store(
        storePath, files,
        [&isInBackground](const std::string& text) {
            complain(text);
            if (isInBackground) {
                syslog(LOG_WARNING, "%s", text.c_str());
            }
        },
        accounts);
    // The store first: of two services on one store, the second must not disturb the mount.
    const int loadError = store.load();
    if (loadError != 0) {
        complain(loadError == EWOULDBLOCK
                     ? "the store " + displayPath(storePath) + " is in use by another ppsd"
                     : "cannot use the store " + displayPath(storePath) + ": " +
                           std::strerror(loadError));
        return 1;
    }
    std::string error;
    if (!mountPoint.prepare(error)) {
        complain(error);
        return 1;
    }
    Loop loop(store, files);
    if (!loop.catchSignals() || !loop.mount(mountPoint.path())) {
        complain("cannot mount on " + displayPath(mountPoint.path()));
        return 1;
    }
    if (background == nullptr) {
        std::printf("ppsd: serving %s (store %s)\n", displayPath(mountPoint.path()).c_str(),
                    displayPath(storePath).c_str());
        std::fflush(stdout);
    } else if (!background->release()) {
        complain("cannot go to the background");
        return 1;
    }
    isInBackground = background != nullptr;
    notifyManager();
    const int loopError = loop.run();
    if (loopError != 0) {
        complain(std::string("the connection to the kernel failed: ") + std::strerror(loopError));
        syslog(LOG_ERR, "the connection to the kernel failed: %s", std::strerror(loopError));
    }
    return loopError == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CommandLine commandLine;
    CLI::App app("Serves objects as files: attributes that programs publish and watch.", "ppsd");
    app.add_option("--store", commandLine.store, "Folder in which objects are kept")
        ->type_name("DIR");
    app.add_flag("--daemon", commandLine.daemon,
                 "Go to the background; return when the mount is live");
    app.add_option("MOUNTPOINT", commandLine.mountPoint, "Where the tree appears");
    const auto addShare = [&](const std::string& option, Holding holding, const std::string& of) {
        app.add_option(option, commandLine.shares[static_cast<std::size_t>(holding)],
                       "Share of each user but root: " + of)
            ->type_name("N")
            ->transform(wholeNumber())
            ->capture_default_str();
    };
    addShare("--user-memory", Holding::kMemory, "bytes of messages and texts that wait");
    addShare("--user-files", Holding::kFiles, "open files");
    addShare("--user-objects", Holding::kObjects, "stored objects and folders");
    addShare("--user-store", Holding::kStored, "bytes of stored objects");
    app.footer("N is a whole number without a unit. With 0, users other than root get nothing.");
    CLI11_PARSE(app, argc, argv);

    Background background;
    int exitStatus = 0;
    if (commandLine.daemon && background.split(exitStatus)) {
        return exitStatus;
    }
    return serve(commandLine, commandLine.daemon ? &background : nullptr);
}
