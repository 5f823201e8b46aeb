// A folder of a test's own, to be the QUIL_ROOT of what it starts. Gone with the object.

#pragma once

#include <string>
#include <string_view>

class ScratchRoot {
  public:
    // Made below TMPDIR or /tmp with mode 0755, so that other users can reach what is in it. Ends
    // the test process when that fails: nothing can be tested then.
    ScratchRoot();
    ~ScratchRoot();
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    const std::string& path() const { return m_path; }

    // Where the platform's "/absolute/path" lies.
    std::string path(std::string_view absolutePath) const {
        return m_path + std::string(absolutePath);
    }

  private:
    std::string m_path;
};
