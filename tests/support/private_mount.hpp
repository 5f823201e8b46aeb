// A disk of a test's own: full, small, or not to be written to.

#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <string>

// What is mounted on a folder, for this process and its children alone.
class PrivateMount {
  public:
    // The folder itself, not to be written to.
    static bool readOnly(const std::string& folder, PrivateMount& mounted) {
        return mounted.begin(folder) &&
               mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
               mount(nullptr, folder.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) ==
                   0;
    }
    // A disk of so many bytes.
    static bool disk(const std::string& folder, std::size_t bytes, PrivateMount& mounted) {
        return mounted.begin(folder) && mount("disk", folder.c_str(), "tmpfs", 0,
                                              ("size=" + std::to_string(bytes)).c_str()) == 0;
    }
    PrivateMount() = default;
    PrivateMount(const PrivateMount&) = delete;
    PrivateMount& operator=(const PrivateMount&) = delete;
    ~PrivateMount() { end(); }

    void end() {
        if (!m_folder.empty()) {
            umount2(m_folder.c_str(), MNT_DETACH);
            m_folder.clear();
        }
    }

  private:
    bool begin(const std::string& folder) {
        m_folder = folder;
        return unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }

    std::string m_folder;
};
