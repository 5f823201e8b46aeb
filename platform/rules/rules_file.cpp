// Read whole, with one byte more than it may have, so that a longer one shows.

#include "platform/rules/rules_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/root/root.hpp"

namespace {

constexpr std::size_t kLargestFileBytes = std::size_t{64} * 1024;

// Why the text cannot be had, "" when *text is it.
std::string readText(int descriptor, std::string* text) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        return std::strerror(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return "it is no regular file";
    }
    text->resize(kLargestFileBytes + 1);
    std::size_t size = 0;
    while (size < text->size()) {
        const ssize_t count = read(descriptor, text->data() + size, text->size() - size);
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count == -1) {
            return std::strerror(errno);
        }
        if (count == 0) {
            break;
        }
        size += static_cast<std::size_t>(count);
    }
    text->resize(size);
    return size > kLargestFileBytes ? "it has more than 65536 bytes" : "";
}

}  // namespace

RulesFile readRulesFile(const std::string& path) {
    // A FIFO would keep the open waiting for somebody who writes to it.
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor == -1) {
        return {std::strerror(errno), {}};
    }
    std::string text;
    std::string problem;
    try {
        problem = readText(descriptor, &text);
    } catch (...) {
        close(descriptor);
        throw;
    }
    close(descriptor);
    if (!problem.empty()) {
        return {problem, {}};
    }
    return {"", Rules(text)};
}

RulesFile readConfiguredRules(const std::string& absolutePath) {
    if (!absolutePath.starts_with('/')) {
        return {"it is no absolute path", {}};
    }
    return readRulesFile(platformPath(absolutePath));
}
