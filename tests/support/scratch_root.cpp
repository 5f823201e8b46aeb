#include "tests/support/scratch_root.hpp"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

ScratchRoot::ScratchRoot() {
    const char* base = std::getenv("TMPDIR");
    m_path = std::string(base == nullptr || base[0] == '\0' ? "/tmp" : base) + "/quil-test-XXXXXX";
    if (mkdtemp(m_path.data()) == nullptr || chmod(m_path.c_str(), 0755) != 0) {
        std::perror(m_path.c_str());
        std::abort();
    }
}

ScratchRoot::~ScratchRoot() {
    std::error_code error;
    std::filesystem::remove_all(m_path, error);
    if (error) {
        std::fprintf(stderr, "%s is left behind: %s\n", m_path.c_str(), error.message().c_str());
    }
}
