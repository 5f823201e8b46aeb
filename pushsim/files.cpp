#include "pushsim/files.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include <unistd.h>

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path, int error) {
    throw std::runtime_error(what + " " + path + ": " + std::strerror(error));
}

std::string readStream(std::istream& stream) {
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace

std::string readInput(const std::string& path) {
    if (path == "-") {
        return readStream(std::cin);
    }
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    // A folder opens and fails only when it is read.
    if (file && file.peek() == std::ifstream::traits_type::eof() && errno != 0) {
        fail("cannot read", path, errno);
    }
    if (!file.is_open()) {
        fail("cannot read", path, errno);
    }
    file.clear();
    return readStream(file);
}

void replaceFile(const std::string& path, const std::string& text) {
    const std::string part = path + ".part." + std::to_string(getpid());
    errno = 0;
    std::ofstream file(part, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) {
        const int error = errno;
        std::remove(part.c_str());
        fail("cannot write", path, error);
    }
    if (std::rename(part.c_str(), path.c_str()) != 0) {
        const int error = errno;
        std::remove(part.c_str());
        fail("cannot write", path, error);
    }
}
