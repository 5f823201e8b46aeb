#include "tools/ppsctl/verbs.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/root/root.hpp"
#include "tools/common/connected_clients.hpp"
#include "tools/common/object_service.hpp"
#include "tools/common/terminal.hpp"
#include "tools/ppsctl/object_text.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kReadBytes = 512 * 1024;  // more than the longest object

// What keeps a verb from its work.
struct Problem {
    ExitStatus status = kDone;
    std::string words;
    std::string next;
};

ExitStatus report(const std::string& subject, const Problem& problem) {
    std::fflush(stdout);
    const Style style(stderr);
    const std::string words = subject.empty() ? problem.words : subject + ": " + problem.words;
    std::fprintf(stderr, "%s %s\n", style.bad("ppsctl:").c_str(),
                 wrapped(visible(words), 8, 8).c_str());
    std::fprintf(stderr, "  next: %s\n", wrapped(visible(problem.next), 8, 8).c_str());
    return problem.status;
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/pps" : path.substr(0, slash);
}

// What `error` of a call on `path` means.
Problem problemOf(int error, const std::string& path) {
    const ServiceState state = objectServiceState();
    if (state != ServiceState::Mounted) {
        return {kNotThere, describeState(state), nextStepFor(state)};
    }
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return {kNotThere, "no such object, or nobody serves it now",
                    "see what there is: ppsctl ls " + parentOf(path)};
        case EACCES:
        case EPERM:
            return {kRefused, "you may not do this",
                    "see owner and mode: ppsctl ls " + parentOf(path)};
        case EISDIR:
            return {kRefused, "this is a folder", "see what is in it: ppsctl ls " + path};
        case EINVAL:
            return {kRefused, "the object service refused the text as malformed",
                    "write name=value, name:encoding:value or -name"};
        case EMSGSIZE:
            return {kRefused, "the text is too long: an object takes 64 KiB, a message 256 KiB",
                    "write less at once"};
        case ENOTEMPTY:
            return {kRefused, "the folder is not empty", "remove what is in it: ppsctl ls " + path};
        case EPIPE:
        case ENOTCONN:
            return {kNotThere, "the object's server went away", "start it again"};
        case ENOBUFS:
            return {kRefused, "your share of the object service's memory is spent",
                    "see which of your programs does not read, and whether a server hangs that one "
                    "of them writes to"};
        case ENFILE:
            return {kRefused, "you have as many objects open as your share allows",
                    "close some, or raise ppsd's --user-files"};
        case EDQUOT:
            return {kRefused, "you have as many objects, or as large ones, as your share allows",
                    "remove some, or raise ppsd's --user-objects or --user-store"};
        default:
            return {kRefused, std::strerror(error), "see the object service's messages"};
    }
}

// The absolute path below /pps for one as typed; "" when it cannot be.
std::string absolutePath(const std::string& typed) {
    std::string path = typed.front() == '/' ? typed : "/pps/" + typed;
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    const bool isBelow = path == "/pps" || path.compare(0, 5, "/pps/") == 0;
    const bool climbs = (path + "/").find("/../") != std::string::npos;
    return isBelow && !climbs && path.find('?') == std::string::npos ? path : "";
}

Problem checkPath(const std::string& path) {
    if (path.empty()) {
        return {kUsage, "a path is below /pps, without '?' and '..'",
                "for example: ppsctl ls /pps/services"};
    }
    const ServiceState state = objectServiceState();
    if (state != ServiceState::Mounted) {
        return {kNotThere, describeState(state), nextStepFor(state)};
    }
    return {};
}

class File {
  public:
    File(const std::string& path, const char* options, int flags)
        : m_descriptor(open((platformPath(path) + options).c_str(), flags | O_CLOEXEC, 0666)),
          m_error(m_descriptor < 0 ? errno : 0) {}
    ~File() {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    int get() const { return m_descriptor; }
    int error() const { return m_error; }

  private:
    int m_descriptor;
    int m_error;
};

void printJson(const nlohmann::ordered_json& object) {
    const std::string line =
        object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

// The text as lines that a terminal can bear; pipes get it byte by byte.
void printText(const std::string& text) {
    if (isatty(STDOUT_FILENO) == 0) {
        std::fwrite(text.data(), 1, text.size(), stdout);
    } else {
        std::size_t at = 0;
        while (at < text.size()) {
            const std::size_t end = std::min(text.find('\n', at), text.size());
            // Backslashes are the object text's own escapes and stand as they are.
            std::string line = text.substr(at, end - at);
            std::printf("%s\n", isReadable(line) ? line.c_str() : visible(line).c_str());
            at = end + 1;
        }
    }
    std::fflush(stdout);
}

std::string modeText(mode_t mode) {
    std::string text = S_ISDIR(mode) ? "d" : "-";
    for (int bit = 8; bit >= 0; --bit) {
        text += (mode & (1U << static_cast<unsigned>(bit))) != 0 ? "xwr"[bit % 3] : '-';
    }
    return text;
}

std::string userName(uid_t id) {
    const passwd* entry = getpwuid(id);
    return entry == nullptr ? std::to_string(id) : entry->pw_name;
}

std::string groupName(gid_t id) {
    const group* entry = getgrgid(id);
    return entry == nullptr ? std::to_string(id) : entry->gr_name;
}

// 0, or errno.
int listOne(const std::string& path, const std::string& name, bool json) {
    struct stat info {};
    if (lstat(platformPath(path).c_str(), &info) != 0) {
        return errno;
    }
    const bool isFolder = S_ISDIR(info.st_mode);
    const std::string owner = userName(info.st_uid) + ":" + groupName(info.st_gid);
    if (json) {
        printJson({{"name", name},
                   {"type", isFolder ? "folder" : "object"},
                   {"mode", modeText(info.st_mode)},
                   {"owner", owner}});
    } else {
        std::printf("%s  %-20s %s%s\n", modeText(info.st_mode).c_str(), owner.c_str(),
                    visible(name).c_str(), isFolder ? "/" : "");
    }
    return 0;
}

// The names in a folder in order. 0, or errno.
int namesIn(const std::string& path, std::vector<std::string>* names) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(platformPath(path).c_str()), closedir);
    if (folder == nullptr) {
        return errno;
    }
    while (const dirent* entry = readdir(folder.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names->push_back(name);
        }
    }
    std::sort(names->begin(), names->end());
    return 0;
}

}  // namespace

ExitStatus listObjects(const std::string& typed, bool json) {
    const std::string path = absolutePath(typed);
    const Problem problem = checkPath(path);
    if (problem.status != kDone) {
        return report(typed, problem);
    }
    std::vector<std::string> names;
    const int error = namesIn(path, &names);
    if (error == ENOTDIR) {
        const int itself = listOne(path, path, json);
        return itself == 0 ? kDone : report(typed, problemOf(itself, path));
    }
    if (error != 0) {
        return report(typed, problemOf(error, path));
    }
    for (const std::string& name : names) {
        const int failure = listOne(path + "/" + name, name, json);
        if (failure != 0 && failure != ENOENT) {  // ENOENT: it went while we looked
            return report(typed, problemOf(failure, path));
        }
    }
    return kDone;
}

ExitStatus showClients(const std::string& typed, bool json) {
    const std::string path = absolutePath(typed);
    const Problem problem = checkPath(path);
    if (problem.status != kDone) {
        return report(typed, problem);
    }
    std::vector<ConnectedClient> clients;
    const int error = readConnectedClients(path, &clients);
    if (error == EACCES) {
        return report(typed,
                      {kRefused, "only root, the object's owner and its server's user may see this",
                       "ask as one of them"});
    }
    if (error != 0) {
        return report(typed, problemOf(error, path));
    }
    for (const ConnectedClient& client : clients) {
        if (json) {
            printJson({{"id", client.id},
                       {"uid", client.user},
                       {"gid", client.group},
                       {"pid", client.process},
                       {"program", client.program}});
        } else {
            const std::string program = client.program.empty() ? "?" : client.program;
            std::printf("%llu  user %s, process %d, %s\n",
                        static_cast<unsigned long long>(client.id),
                        visible(userWithName(client.user)).c_str(),
                        static_cast<int>(client.process), visible(program).c_str());
        }
    }
    return kDone;
}

ExitStatus showObject(const std::string& typed, bool json) {
    const std::string path = absolutePath(typed);
    const Problem problem = checkPath(path);
    if (problem.status != kDone) {
        return report(typed, problem);
    }
    const File file(path, "", O_RDONLY);
    std::string text(kReadBytes, '\0');
    const ssize_t count = file.get() < 0 ? -1 : read(file.get(), text.data(), text.size());
    if (count < 0) {
        return report(typed, problemOf(file.get() < 0 ? file.error() : errno, path));
    }
    text.resize(static_cast<std::size_t>(count));
    if (json) {
        printJson(objectAsJson(text));
    } else {
        printText(text);
    }
    return kDone;
}

namespace {

// Waits until `file` can be read. False when the deadline came first.
bool waitForText(const File& file, const std::optional<Clock::time_point>& deadline) {
    for (;;) {
        std::int64_t pause = 60000;
        if (deadline) {
            const auto left = std::chrono::ceil<milliseconds>(*deadline - Clock::now());
            pause = std::clamp<std::int64_t>(left.count(), 0, pause);
        }
        pollfd entry{file.get(), POLLIN, 0};
        if (poll(&entry, 1, static_cast<int>(pause)) > 0) {
            return true;
        }
        if (deadline && Clock::now() >= *deadline) {
            return false;
        }
    }
}

}  // namespace

ExitStatus watchObject(const WatchOptions& options) {
    const std::string path = absolutePath(options.path);
    const Problem problem = checkPath(path);
    if (problem.status != kDone) {
        return report(options.path, problem);
    }
    std::optional<Clock::time_point> deadline;
    if (options.timeoutSeconds) {
        deadline =
            Clock::now() +
            milliseconds(static_cast<std::int64_t>(std::ceil(*options.timeoutSeconds * 1000)));
    }
    const File file(path, "?wait,delta", O_RDONLY | O_NONBLOCK);
    if (file.get() < 0) {
        return report(options.path, problemOf(file.error(), path));
    }
    std::string text;
    for (std::uint64_t shown = 0; !options.count || shown < *options.count;) {
        text.resize(kReadBytes);
        const ssize_t count = read(file.get(), text.data(), text.size());
        const int error = errno;
        if (count > 0) {
            text.resize(static_cast<std::size_t>(count));
            if (options.json) {
                printJson(objectAsJson(text));
            } else {
                printText(text);
            }
            ++shown;
        } else if (count == 0) {
            return report(options.path, problemOf(EPIPE, path));
        } else if (error != EAGAIN && error != EINTR) {
            return report(options.path, problemOf(error, path));
        } else if (!waitForText(file, deadline)) {
            return report(options.path, {kTimeout, "the time given with --timeout is over",
                                         "give it more time, or none"});
        }
    }
    return kDone;
}

ExitStatus writeObject(const std::string& typed, const std::vector<std::string>& attributes,
                       bool isCreating, bool json) {
    const std::string path = absolutePath(typed);
    std::string error;
    const std::optional<std::string> text = attributeLines(attributes, &error);
    const Problem problem =
        text ? checkPath(path)
             : Problem{kUsage, error, "for example: ppsctl write test/object colour=blue"};
    if (problem.status != kDone) {
        return report(typed, problem);
    }
    const File file(path, "", O_WRONLY | (isCreating ? O_CREAT : 0));
    if (file.get() < 0) {
        Problem missing = problemOf(file.error(), path);
        if (file.error() == ENOENT && missing.status == kNotThere && !isCreating) {
            missing.next += ", or create it with --create";
        }
        return report(typed, missing);
    }
    if (write(file.get(), text->data(), text->size()) < 0) {
        return report(typed, problemOf(errno, path));
    }
    if (json) {
        printJson({{"written", path}, {"bytes", text->size()}});
    }
    return kDone;
}

ExitStatus removeObjects(const std::vector<std::string>& paths, bool json) {
    ExitStatus status = kDone;
    for (const std::string& typed : paths) {
        const std::string path = absolutePath(typed);
        Problem problem = checkPath(path);
        if (problem.status == kDone) {
            const std::string real = platformPath(path);
            int error = unlink(real.c_str()) == 0 ? 0 : errno;
            if (error == EISDIR) {
                error = rmdir(real.c_str()) == 0 ? 0 : errno;
            }
            problem = error == 0 ? Problem{} : problemOf(error, path);
        }
        if (problem.status != kDone) {
            report(typed, problem);
            status = status == kDone ? problem.status : status;
        } else if (json) {
            printJson({{"removed", path}});
        }
    }
    return status;
}
