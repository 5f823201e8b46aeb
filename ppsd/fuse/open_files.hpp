// The files that the kernel has open: reads that wait for an answer, and whom to wake for poll.

#pragma once

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "ppsd/store/open_file.hpp"
#include "ppsd/store/turns.hpp"

// Owns the open files. Everything happens on the thread of the request loop.
class OpenFiles : public ReadinessListener {
  public:
    // Takes the file of a process of `user` over; the handle stands for it towards the kernel until
    // release().
    std::uint64_t add(uid_t user, std::unique_ptr<OpenFile> file);

    // Closes the file. Reads that still wait on it are answered with EBADF.
    void release(std::uint64_t handle);

    OpenFile& file(std::uint64_t handle);

    // Remembers the size of a write; gives that of the one before.
    static std::size_t exchangeWritten(std::uint64_t handle, std::size_t size);

    // What a read is answered with that has nothing to read yet on a file where reads wait.
    enum class Impatience { kNone, kNonBlocking, kForPageCache };

    // Answers the read now, or keeps the request until there is something to read.
    void read(fuse_req_t request, std::uint64_t handle, std::size_t size, Impatience impatience);

    // Answers with the present state and keeps `waker` (which may be null) to tell the kernel of
    // the next change.
    void poll(fuse_req_t request, std::uint64_t handle, fuse_pollhandle* waker);

    void readinessChanged(OpenFile& file) noexcept override;

    // Whether there are waiting reads to answer or pollers to wake.
    bool hasChanged() const { return !m_changed.empty(); }
    // Does so for some of the files that became readable, users in turn: however many descriptors
    // one user has of an object, others do not wait for all of them to be woken. To be called
    // after each request, once its own answer is out, and as long as hasChanged().
    void wakeSome();

    // Answers every waiting read with ENOTCONN and closes all files: the service ends. To be called
    // while the store and the session of the requests still exist.
    void closeAll();

  private:
    struct WaitingRead {
        fuse_req_t request;
        std::size_t size;
    };
    struct PollHandleDeleter {
        void operator()(fuse_pollhandle* waker) const { fuse_pollhandle_destroy(waker); }
    };
    struct Entry {
        OpenFiles* owner = nullptr;
        uid_t user = 0;
        std::unique_ptr<OpenFile> file;
        std::unique_ptr<fuse_pollhandle, PollHandleDeleter> waker;
        bool isPolled = false;  // and the kernel has not been told of a change since
        std::vector<WaitingRead> waiting;
        std::size_t written = 0;  // by the last write
    };

    // A file that is to be looked at, or not; there as long as the file.
    struct Change {
        Entry* entry = nullptr;
        bool isDue = false;

        bool empty() const { return !isDue; }
        bool isDone() const { return entry == nullptr; }
        Entry* take() {
            isDue = false;
            return entry;
        }
    };

    static Entry& entryOf(std::uint64_t handle);
    static bool answerRead(fuse_req_t request, OpenFile& file, std::size_t size);
    static void interrupted(fuse_req_t request, void* entry);
    template <typename Action>
    void change(const Entry& entry, Action action);
    static void wake(Entry& entry);

    std::unordered_map<const OpenFile*, std::unique_ptr<Entry>> m_entries;
    Turns<uid_t, Turns<const OpenFile*, Change>> m_changed;
};
