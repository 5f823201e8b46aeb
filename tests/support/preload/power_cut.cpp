// To be preloaded into the object service: writes down, in their order, all changes below one
// folder and which of them were synced, so that somebody else can work out what a power cut would
// have left at any moment.
//
// The journal is the file that QUIL_JOURNAL names; the folder is that of QUIL_JOURNAL_FOLDER. Each
// entry is one write to a file opened for appending, so that other processes can put theirs between
// them. An entry is a line "KIND LENGTH-OF-FIRST LENGTH-OF-SECOND" and both texts. Entries are made
// behind the call that they tell of, when it succeeded: what is in the journal has happened. Paths
// are relative to the folder.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

const std::string& folder() {
    static const std::string* const kFolder = [] {
        const char* name = std::getenv("QUIL_JOURNAL_FOLDER");
        return new std::string(name == nullptr ? "" : std::string(name) + "/");
    }();
    return *kFolder;
}

int journal() {
    static const int kDescriptor = [] {
        const char* name = std::getenv("QUIL_JOURNAL");
        // Under a number that no program counts on.
        const int low = name == nullptr
                            ? -1
                            : next<int(const char*, int, ...)>("open")(
                                  name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const int high = low < 0 ? -1 : fcntl(low, F_DUPFD_CLOEXEC, 500);
        next<int(int)>("close")(low);
        return high;
    }();
    return kDescriptor;
}

// The path below the folder, "." for the folder itself; false for any other path.
bool isOurs(const std::string& path, std::string* relative) {
    if (folder().empty() || (path + "/").compare(0, folder().size(), folder()) != 0) {
        return false;
    }
    *relative = path.size() < folder().size() ? "." : path.substr(folder().size());
    return true;
}

bool pathOf(int descriptor, std::string* relative) {
    std::array<char, PATH_MAX> path{};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    return length > 0 &&
           isOurs(std::string(path.data(), static_cast<std::size_t>(length)), relative);
}

void note(const char* kind, std::string_view first, std::string_view second) {
    const int error = errno;
    std::string entry = std::string(kind) + " " + std::to_string(first.size()) + " " +
                        std::to_string(second.size()) + "\n";
    entry.append(first).append(second);
    if (next<ssize_t(int, const void*, size_t)>("write")(journal(), entry.data(), entry.size()) !=
        static_cast<ssize_t>(entry.size())) {
        std::fputs("power_cut: the journal cannot be written\n", stderr);
        std::abort();
    }
    errno = error;
}

// The path of an entry of a folder, which is a descriptor or AT_FDCWD; false for any that is not
// below the folder.
bool entryOf(int parent, const char* name, std::string* relative) {
    if (name[0] == '/' || parent == AT_FDCWD) {
        return isOurs(name, relative);
    }
    std::string above;
    if (!pathOf(parent, &above)) {
        return false;
    }
    *relative = above == "." ? name : above + "/" + name;
    return true;
}

void noteIfOurs(bool isDone, const char* kind, int parent, const char* name) {
    std::string relative;
    if (isDone && entryOf(parent, name, &relative)) {
        note(kind, relative, "");
    }
}

}  // namespace

extern "C" {

int openat(int parent, const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const int descriptor =
        next<int(int, const char*, int, ...)>("openat")(parent, path, flags, mode);
    if ((flags & O_CREAT) != 0) {
        noteIfOurs(descriptor >= 0, (flags & O_TRUNC) != 0 ? "truncate" : "create", parent, path);
    }
    return descriptor;
}

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return openat(AT_FDCWD, path, flags, mode);
}

// Files are written from front to end, or emptied first; nothing else needs to be told apart.
ssize_t write(int descriptor, const void* bytes, size_t count) {
    const ssize_t written =
        next<ssize_t(int, const void*, size_t)>("write")(descriptor, bytes, count);
    std::string relative;
    if (written > 0 && pathOf(descriptor, &relative)) {
        note("write", relative,
             {static_cast<const char*>(bytes), static_cast<std::size_t>(written)});
    }
    return written;
}

int fsync(int descriptor) {
    const int result = next<int(int)>("fsync")(descriptor);
    std::string relative;
    if (result == 0 && pathOf(descriptor, &relative)) {
        note("sync", relative, "");
    }
    return result;
}

int fdatasync(int descriptor) {
    const int result = next<int(int)>("fdatasync")(descriptor);
    std::string relative;
    if (result == 0 && pathOf(descriptor, &relative)) {
        note("sync", relative, "");
    }
    return result;
}

int renameat(int fromParent, const char* from, int toParent, const char* to) {
    const int result =
        next<int(int, const char*, int, const char*)>("renameat")(fromParent, from, toParent, to);
    std::string source;
    std::string target;
    if (result == 0 && entryOf(fromParent, from, &source) && entryOf(toParent, to, &target)) {
        note("rename", source, target);
    }
    return result;
}

int rename(const char* from, const char* to) {
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
}

int mkdirat(int parent, const char* path, mode_t mode) {
    const int result = next<int(int, const char*, mode_t)>("mkdirat")(parent, path, mode);
    noteIfOurs(result == 0, "mkdir", parent, path);
    return result;
}

int mkdir(const char* path, mode_t mode) {
    return mkdirat(AT_FDCWD, path, mode);
}

int unlinkat(int parent, const char* path, int flags) {
    const int result = next<int(int, const char*, int)>("unlinkat")(parent, path, flags);
    noteIfOurs(result == 0, (flags & AT_REMOVEDIR) != 0 ? "rmdir" : "unlink", parent, path);
    return result;
}

int unlink(const char* path) {
    return unlinkat(AT_FDCWD, path, 0);
}

int rmdir(const char* path) {
    return unlinkat(AT_FDCWD, path, AT_REMOVEDIR);
}

}  // extern "C"
