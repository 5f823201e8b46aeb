#include "ppsd/fuse/stale_names.hpp"

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include <new>
#include <utility>

namespace {

// More than this at a time are not worth their memory.
constexpr std::size_t kNamesMax = 16 * 1024;

}  // namespace

void StaleNames::add(std::uint64_t folder, const std::string& name) noexcept {
    try {
        if (!m_isClosed && m_names.size() < kNamesMax) {
            m_names.emplace_back(folder, name);
        }
    } catch (const std::bad_alloc&) {
    }
}

void StaleNames::close() noexcept {
    m_names.clear();
    m_isClosed = true;
}

void StaleNames::passOn(fuse_session* session) {
    m_thread.collect();
    if (m_thread.isBusy() || m_names.empty() || descriptor() < 0) {
        return;
    }
    m_thread.run([session, names = std::exchange(m_names, {})] {
        for (const auto& [folder, name] : names) {
            fuse_lowlevel_notify_inval_entry(session, folder, name.c_str(), name.size());
        }
    });
}
