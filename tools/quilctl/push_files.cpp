#include "tools/quilctl/push_files.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t kMaxNameBytes = 120;
constexpr int kMaxSameNames = 100000;

bool writeAll(int descriptor, const std::string& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = write(descriptor, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        written += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return fsync(descriptor) == 0;
}

// Creates `path`, which must not exist. 0, or errno; then no file stays.
int writeNewFile(const std::string& path, const std::string& bytes) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (descriptor < 0) {
        return errno;
    }
    const int error = writeAll(descriptor, bytes) ? 0 : errno;
    close(descriptor);
    if (error != 0) {
        unlink(path.c_str());
    }
    return error;
}

std::string headerLines(const quilclient::Push& push) {
    std::string lines;
    for (const quilclient::Header& header : push.headers) {
        lines += header.name + ":" + header.value + "\n";
    }
    return lines;
}

}  // namespace

std::string safeFileName(const std::string& id) {
    std::string name;
    for (const char byte : id) {
        const auto code = static_cast<unsigned char>(byte);
        const bool isInnerDot = byte == '.' && !name.empty();
        const bool isPlain = code < 0x80 && std::isalnum(code) != 0;
        if (isPlain || byte == '-' || byte == '_' || isInnerDot) {
            name += byte;
        } else {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned>(code));
            name += escaped;
        }
    }
    name.resize(std::min(name.size(), kMaxNameBytes));
    return name.empty() ? "%" : name;
}

std::string savePush(const std::string& directory, const quilclient::Push& push,
                     std::string* error) {
    const std::string base = safeFileName(push.id);
    for (int number = 1; number < kMaxSameNames; ++number) {
        const std::string name = number == 1 ? base : base + "-" + std::to_string(number);
        const std::string path = directory + "/" + name;
        int failure = writeNewFile(path + ".data", push.data);
        if (failure == 0) {
            failure = writeNewFile(path + ".headers", headerLines(push));
            if (failure == 0) {
                return name;
            }
            unlink((path + ".data").c_str());
        }
        if (failure != EEXIST) {
            *error = "cannot write to " + directory + ": " + std::strerror(failure);
            return "";
        }
    }
    *error = "too many files named " + base + " in " + directory;
    return "";
}
