#include "tools/common/object_service.hpp"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <cerrno>

#include "platform/root/root.hpp"

ServiceState objectServiceState() {
    struct statfs info {};
    if (statfs(platformPath("/pps").c_str(), &info) == 0) {
        return info.f_type == FUSE_SUPER_MAGIC ? ServiceState::Mounted : ServiceState::Absent;
    }
    // EACCES: a mount of another user's; the kernel lets no stranger see more of it.
    if (errno == EACCES) {
        return ServiceState::Mounted;
    }
    return errno == ENOTCONN || errno == EIO ? ServiceState::Dead : ServiceState::Absent;
}

std::string describeState(ServiceState state) {
    switch (state) {
        case ServiceState::Mounted:
            return "the object service is mounted on /pps";
        case ServiceState::Dead:
            return "the object service died and left a dead mount on /pps";
        case ServiceState::Silent:
            return "the object service is mounted on /pps, but does not answer";
        case ServiceState::Absent:
            break;
    }
    return "no object service is mounted on /pps";
}

std::string nextStepFor(ServiceState state) {
    switch (state) {
        case ServiceState::Dead:
            return "start ppsd again; it cleans the dead mount up";
        case ServiceState::Silent:
            return "let ppsd run on if somebody stopped it (kill -CONT), else restart it";
        case ServiceState::Mounted:
        case ServiceState::Absent:
            break;
    }
    return "start ppsd (and set QUIL_ROOT if it runs below a folder)";
}
