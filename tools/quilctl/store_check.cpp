// Nothing less than a write tells: a disk may be full, mounted read-only or broken, and which disk
// it is only the object service knows.

#include "tools/quilctl/store_check.hpp"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "platform/root/root.hpp"
#include "tools/common/abandonable.hpp"

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(StoreFacts, isKnown, freeBytes, totalBytes, isTried, isSlow,
                                   problem)

namespace {

constexpr const char* kObject = "/pps/.quilctl-check";

// 0, or errno.
int writeObject(const std::string& path) {
    constexpr std::string_view kText = "check::1\n";
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) {
        return errno;
    }
    int error = write(file, kText.data(), kText.size()) < 0 ? errno : 0;
    close(file);
    if (unlink(path.c_str()) != 0 && error == 0 && errno != ENOENT) {
        error = errno;
    }
    return error;
}

StoreFacts look() {
    StoreFacts facts;
    struct statvfs info {};
    facts.isKnown = statvfs(platformPath("/pps").c_str(), &info) == 0;
    facts.freeBytes = std::uint64_t{info.f_bavail} * info.f_frsize;
    facts.totalBytes = std::uint64_t{info.f_blocks} * info.f_frsize;
    const int error = writeObject(platformPath(kObject));
    // ENOENT: another check removed it under our hands, so this one says nothing.
    facts.isTried = error != EACCES && error != EPERM && error != ENOENT;
    facts.problem = facts.isTried && error != 0 ? std::strerror(error) : "";
    return facts;
}

}  // namespace

StoreFacts checkStore(std::chrono::milliseconds limit) {
    const std::optional<std::string> seen = runAbandonable(limit, [] {
        return nlohmann::json(look()).dump(-1, ' ', false,
                                           nlohmann::json::error_handler_t::replace);
    });
    if (seen) {
        return nlohmann::json::parse(*seen).get<StoreFacts>();
    }
    StoreFacts facts;
    facts.isKnown = true;
    facts.isTried = true;
    facts.isSlow = true;
    return facts;
}
