// The files that the kernel has open: reads that wait for an answer, and whom to wake for poll.

#pragma once

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ppsd/store/open_file.hpp"

// Owns the open files. Everything happens on the thread of the request loop.
class OpenFiles : public ReadinessListener {
  public:
    // Takes the file over; the handle stands for it towards the kernel until release().
    std::uint64_t add(std::unique_ptr<OpenFile> file);

    // Closes the file. Reads that still wait on it are answered with EBADF.
    void release(std::uint64_t handle);

    OpenFile& file(std::uint64_t handle);

    // Answers the read now, or keeps the request until there is something to read.
    void read(fuse_req_t request, std::uint64_t handle, std::size_t size, bool nonBlocking);

    // Answers with the present state and keeps `waker` (which may be null) to tell the kernel of
    // the next change.
    void poll(fuse_req_t request, std::uint64_t handle, fuse_pollhandle* waker);

    void readinessChanged(OpenFile& file) override;

    // Answers waiting reads and wakes pollers of the files that became readable since the last
    // call. To be called after each request, once its own answer is out.
    void wakeReaders();

    // Answers every waiting read with ENODEV and closes all files: the service ends. To be called
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
        OpenFiles* owner;
        std::unique_ptr<OpenFile> file;
        std::unique_ptr<fuse_pollhandle, PollHandleDeleter> waker;
        std::vector<WaitingRead> waiting;
    };

    static Entry& entryOf(std::uint64_t handle);
    static bool answerRead(fuse_req_t request, OpenFile& file, std::size_t size);
    static void interrupted(fuse_req_t request, void* entry);
    void wake(Entry& entry);

    std::unordered_map<const OpenFile*, std::unique_ptr<Entry>> m_entries;
    std::unordered_set<const OpenFile*> m_changed;
};
