// The service at work: the mount and the loop that answers the kernel.

#pragma once

#include <memory>
#include <string>

#include "ppsd/fuse/open_files.hpp"
#include "ppsd/fuse/operations.hpp"
#include "ppsd/store/store.hpp"

struct fuse_session;

class Loop {
  public:
    // `store` is loaded and outlives the loop; `files` is the listener of the store. The disk's
    // work moves to a thread of its own with mount().
    Loop(Store& store, OpenFiles& files);

    // Closes all files and unmounts when that has not happened yet.
    ~Loop();

    // Has SIGTERM, SIGINT and SIGHUP wait for run(), on whose thread this is called, and ignores
    // SIGPIPE. To be called before mount(). Takes SIGALRM.
    bool catchSignals();

    // False when the mount fails; the library has then said why on standard error.
    bool mount(const std::string& mountPoint);

    // Answers requests until one of those signals or an unmount from outside. 0, or an errno value
    // when the connection to the kernel failed.
    int run();

  private:
    int setBlocking(bool isBlocking);
    int serveOne(fuse_buf& buffer);
    int serveSome(fuse_buf& buffer);
    void end();
    void unmount();

    Store& m_store;
    Operations m_operations;
    OpenFiles& m_files;
    fuse_session* m_session = nullptr;
    bool m_isMounted = false;
    bool m_isBlocking = true;  // the device
};
