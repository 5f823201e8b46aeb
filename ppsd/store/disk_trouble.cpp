#include "ppsd/store/disk_trouble.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace {

bool isOfDisk(int error) {
    return error == ENOSPC || error == EDQUOT || error == EROFS || error == EIO;
}

}  // namespace

void DiskTrouble::noteWrite(int error, std::size_t bytes, const FreeBytes& freeBytes) {
    if (isOfDisk(error)) {
        begin(error, bytes);
    } else if (error == 0 && m_error != 0 &&
               (!isOfRoom() || bytes >= m_bytes || freeBytes() > m_bytes)) {
        end();
    }
}

void DiskTrouble::noteChange(int error) {
    if (isOfDisk(error)) {
        begin(error, 0);
    } else if (error == 0 && m_error != 0 && !isOfRoom()) {
        end();
    }
}

bool DiskTrouble::isOfRoom() const {
    return m_error == ENOSPC || m_error == EDQUOT;
}

void DiskTrouble::begin(int error, std::size_t bytes) noexcept {
    if (error == m_error) {
        m_bytes = std::min(m_bytes, bytes);
        return;
    }
    m_error = error;
    m_bytes = bytes;
    tell("the store cannot be written to: ", std::strerror(error), "; changes fail until it can");
}

void DiskTrouble::end() noexcept {
    m_error = 0;
    tell("the store can be written to again", "", "");
}

// How a change ended is settled by now: that there is no memory for a line must not alter it.
void DiskTrouble::tell(const char* text, const char* reason, const char* more) noexcept {
    try {
        m_report(std::string(text) + reason + more);
    } catch (const std::bad_alloc&) {
        return;
    }
}
