// The folder on which the tree is mounted.

#pragma once

#include <istream>
#include <string>

class MountPoint {
  public:
    explicit MountPoint(std::string path);

    // Makes the folder when it is missing, clears away the mount of a service that died, and closes
    // the folder to others. Nothing is locked here: whoever can read a folder can hold a lock on it
    // for ever; two services are told apart by their store's lock and by what is mounted. False
    // with a sentence for the person who started the service in `error`.
    bool prepare(std::string& error);

    const std::string& path() const { return m_path; }

  private:
    bool clearStaleMount(std::string& error);

    std::string m_path;
};

// The mount options: others than the user of the service get in where the system permits that, and
// the kernel checks permissions in any case.
std::string mountOptions();

// Whether the text of fuse.conf lets ordinary users open their mounts to others: the line that
// says so, taken as the helper that mounts for them takes it.
bool permitsOthers(std::istream& configuration);

// `path` from the root of the file system, without detours: it stays right when the daemon changes
// its working directory. Empty when `path` is.
std::string absolutePath(const std::string& path);

// An absolute path as people write it: without the value of QUIL_ROOT in front.
std::string displayPath(const std::string& path);
