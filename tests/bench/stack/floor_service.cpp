// The least that an object service can be: a file system with one object, "ipc". One server opens
// it as "ipc?server" and is told of every client; what a client writes comes to the server behind
// the client's name, "@ipc.N", and what the server writes behind such a name goes to that client.
// No users, shares, limits, or other objects; one thread, so nothing is locked.
//
//     bench_floor_service FOLDER
//
// Serves until it is told to end by a signal, or the folder is unmounted.

#define FUSE_USE_VERSION 35

#include <fuse3/fuse_lowlevel.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr fuse_ino_t kObject = 2;
constexpr fuse_ino_t kServedObject = 3;
constexpr std::string_view kNamePrefix = "@ipc.";

struct PollHandleDeleter {
    void operator()(fuse_pollhandle* handle) const { fuse_pollhandle_destroy(handle); }
};

// One open of the object.
struct Opened {
    bool isServer = false;
    int number = 0;
    std::deque<std::string> messages;
    std::unique_ptr<fuse_pollhandle, PollHandleDeleter> waiter;

    void give(std::string message) {
        messages.push_back(std::move(message));
        if (waiter) {
            fuse_lowlevel_notify_poll(waiter.get());
            waiter.reset();
        }
    }
};

std::map<int, Opened*> clients;
Opened* server = nullptr;
int lastNumber = 0;

Opened* openedOf(const fuse_file_info* info) {
    return reinterpret_cast<Opened*>(info->fh);
}

std::string nameOf(const Opened& client) {
    return std::string(kNamePrefix) + std::to_string(client.number) + "\n";
}

struct stat statusOf(fuse_ino_t inode) {
    struct stat status {};
    status.st_ino = inode;
    status.st_mode = inode == FUSE_ROOT_ID ? S_IFDIR | 0755 : S_IFREG | 0666;
    status.st_nlink = 1;
    return status;
}

void lookUp(fuse_req_t request, fuse_ino_t, const char* name) {
    fuse_entry_param entry{};
    if (std::strcmp(name, "ipc") == 0) {
        entry.ino = kObject;
    } else if (std::strcmp(name, "ipc?server") == 0) {
        entry.ino = kServedObject;
    } else {
        fuse_reply_err(request, ENOENT);
        return;
    }
    entry.attr = statusOf(entry.ino);
    fuse_reply_entry(request, &entry);
}

void getAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    const struct stat status = statusOf(inode);
    fuse_reply_attr(request, &status, 0);
}

void open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    auto opened = std::make_unique<Opened>();
    opened->isServer = inode == kServedObject;
    opened->number = ++lastNumber;
    if (opened->isServer) {
        server = opened.get();
    } else {
        clients[opened->number] = opened.get();
        if (server != nullptr) {
            server->give("+" + nameOf(*opened));
        }
    }
    info->direct_io = 1;
    info->nonseekable = 1;
    info->noflush = 1;
    // The kernel keeps it, and gives it back with release().
    info->fh = reinterpret_cast<std::uint64_t>(opened.release());
    fuse_reply_open(request, info);
}

void read(fuse_req_t request, fuse_ino_t, std::size_t size, off_t, fuse_file_info* info) {
    Opened& opened = *openedOf(info);
    if (opened.messages.empty()) {
        fuse_reply_buf(request, nullptr, 0);
        return;
    }
    const std::string message = std::move(opened.messages.front());
    opened.messages.pop_front();
    fuse_reply_buf(request, message.data(), std::min(size, message.size()));
}

void write(fuse_req_t request, fuse_ino_t, const char* bytes, std::size_t size, off_t,
           fuse_file_info* info) {
    const Opened& writer = *openedOf(info);
    const std::string message(bytes, size);
    if (!writer.isServer) {
        if (server != nullptr) {
            server->give(nameOf(writer) + message);
        }
    } else if (message.starts_with(kNamePrefix)) {
        const auto client = clients.find(std::atoi(message.c_str() + kNamePrefix.size()));
        if (client != clients.end()) {
            client->second->give(message);
        }
    }
    fuse_reply_write(request, size);
}

void poll(fuse_req_t request, fuse_ino_t, fuse_file_info* info, fuse_pollhandle* handle) {
    Opened& opened = *openedOf(info);
    if (handle != nullptr) {
        opened.waiter.reset(handle);
    }
    const unsigned readable = opened.messages.empty() ? 0 : POLLIN | POLLRDNORM;
    fuse_reply_poll(request, POLLOUT | readable);
}

void release(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
    const std::unique_ptr<Opened> opened(openedOf(info));
    if (opened->isServer) {
        server = nullptr;
    } else {
        clients.erase(opened->number);
    }
    fuse_reply_err(request, 0);
}

int serve(const char* program, const char* folder) {
    std::string name = program;
    std::array<char*, 2> words = {name.data(), nullptr};
    fuse_args arguments = FUSE_ARGS_INIT(1, words.data());
    fuse_lowlevel_ops operations{};
    operations.lookup = lookUp;
    operations.getattr = getAttributes;
    operations.open = open;
    operations.read = read;
    operations.write = write;
    operations.poll = poll;
    operations.release = release;
    fuse_session* session = fuse_session_new(&arguments, &operations, sizeof operations, nullptr);
    if (session == nullptr) {
        return 1;
    }
    int status = 1;
    if (fuse_set_signal_handlers(session) == 0 && fuse_session_mount(session, folder) == 0) {
        status = fuse_session_loop(session) < 0 ? 1 : 0;
        fuse_session_unmount(session);
    }
    fuse_session_destroy(session);
    return status;
}

}  // namespace

int main(int count, char** words) {
    if (count != 2) {
        std::fprintf(stderr, "Usage: bench_floor_service FOLDER\n");
        return 2;
    }
    return serve(words[0], words[1]);
}
