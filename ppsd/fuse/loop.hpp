// The service at work: the mount and the loop that answers the kernel.

#pragma once

#include <csignal>
#include <memory>
#include <string>

#include "ppsd/fuse/open_files.hpp"
#include "ppsd/fuse/operations.hpp"
#include "ppsd/store/store.hpp"
#include "ppsd/store/unique_fd.hpp"

struct fuse_session;

class Loop {
  public:
    // `store` is loaded and outlives the loop; `files` is the listener of the store. The disk's
    // work moves to a thread of its own with mount().
    Loop(Store& store, OpenFiles& files);

    // Closes all files and unmounts when that has not happened yet.
    ~Loop();

    // Blocks SIGTERM, SIGINT and SIGHUP for this thread, to take them from a descriptor from now
    // on, and ignores SIGPIPE. To be called before mount().
    bool catchSignals();

    // False when the mount fails; the library has then said why on standard error.
    bool mount(const std::string& mountPoint);

    // Answers requests until one of those signals or an unmount from outside. 0, or an errno value
    // when the connection to the kernel failed.
    int run();

  private:
    int serveOne(fuse_buf& buffer);
    int wait(int milliseconds, bool& isSignalled, bool& isRequested);
    void end();
    void unmount();

    Store& m_store;
    Operations m_operations;
    OpenFiles& m_files;
    UniqueFd m_signals;
    fuse_session* m_session = nullptr;
    bool m_isMounted = false;
};
