// A limit on the open files of this process.

#pragma once

#include <sys/resource.h>

// As long as it lives, descriptors have numbers below `files`.
class FileLimit {
  public:
    explicit FileLimit(rlim_t files) {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit limit{files, m_before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~FileLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;

  private:
    rlimit m_before{};
};
