// The child hands the open file over: whoever has it then, it stays the one that the child opened.

#include "tests/support/other_user.hpp"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace {

struct Parcel {
    Parcel() {
        m_vector = {&m_byte, 1};
        message.msg_iov = &m_vector;
        message.msg_iovlen = 1;
        message.msg_control = m_control.data();
        message.msg_controllen = m_control.size();
    }

    msghdr message{};

  private:
    char m_byte = 'x';
    iovec m_vector{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> m_control{};
};

bool handOver(int socket, int descriptor) {
    Parcel parcel;
    cmsghdr* header = CMSG_FIRSTHDR(&parcel.message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    return sendmsg(socket, &parcel.message, 0) == 1;
}

int takeOver(int socket) {
    Parcel parcel;
    if (recvmsg(socket, &parcel.message, MSG_CMSG_CLOEXEC) != 1) {
        return -1;
    }
    const cmsghdr* header = CMSG_FIRSTHDR(&parcel.message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS) {
        return -1;
    }
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    return descriptor;
}

[[noreturn]] void openInChild(int socket, const std::string& path, uid_t user, gid_t group) {
    if (setgroups(0, nullptr) != 0 || setresgid(group, group, group) != 0 ||
        setresuid(user, user, user) != 0) {
        _exit(1);
    }
    const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
    _exit(descriptor != -1 && handOver(socket, descriptor) ? 0 : 1);
}

}  // namespace

int openAs(const std::string& path, uid_t user, gid_t group) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return -1;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        openInChild(ends[1], path, user, group);
    }
    close(ends[1]);
    const int descriptor = child == -1 ? -1 : takeOver(ends[0]);
    close(ends[0]);
    if (child != -1) {
        waitpid(child, nullptr, 0);
    }
    return descriptor;
}
