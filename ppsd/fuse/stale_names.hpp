// Asks the kernel to let go of names that mean nothing any more.
//
// The kernel does so only when nobody is changing the name's folder, and whoever does may be
// waiting for an answer of the service: so it is asked beside the service's own thread. A name that
// is not passed on costs memory until the kernel wants it back, and nothing else.

#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ppsd/store/side_thread.hpp"

struct fuse_session;

// All calls belong to the thread of the request loop.
class StaleNames {
  public:
    // 0 or an errno value.
    int start() { return m_thread.start("ppsd names"); }
    // Readable when passOn() has something to do.
    int descriptor() const { return m_thread.descriptor(); }

    // The entry of this name in the folder of this inode number.
    void add(std::uint64_t folder, const std::string& name) noexcept;

    // Hands over what was added, unless the kernel has not dealt with the last ones.
    void passOn(fuse_session* session);

    // Takes no more: what was added and not handed over is dropped.
    void close() noexcept;

    // Whether the kernel has names before it. Its answers may need the service's, so the service
    // goes on until it has none before it ends.
    bool isBusy() const { return m_thread.isBusy(); }

  private:
    std::vector<std::pair<std::uint64_t, std::string>> m_names;
    bool m_isClosed = false;
    SideThread m_thread;
};
