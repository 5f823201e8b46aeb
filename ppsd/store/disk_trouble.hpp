// Whether the disk below the store takes what is written, and who is told when that changes.
//
// While a disk is full every change fails, and each of those who change something hears so. The
// person who looks after the service is told once when it begins and once when it is over, however
// many changes there are.

#pragma once

#include <cstddef>
#include <functional>
#include <string>

// Takes one line for the person who looks after the service, without a line feed.
using Report = std::function<void(const std::string&)>;

class DiskTrouble {
  public:
    // Gives how many bytes are free on the disk.
    using FreeBytes = std::function<std::size_t()>;

    explicit DiskTrouble(Report report) : m_report(std::move(report)) {}

    // How it ended (0 or an errno value) that `bytes` were written. Errors that are none of the
    // disk's count for nothing. What is smaller than what failed for want of room is written ends
    // no trouble, unless there is room for that by now.
    void noteWrite(int error, std::size_t bytes, const FreeBytes& freeBytes);
    // The same for a change that may have needed no room, such as a removal.
    void noteChange(int error);

  private:
    bool isOfRoom() const;
    void begin(int error, std::size_t bytes) noexcept;
    void end() noexcept;
    void tell(const char* text, const char* reason, const char* more) noexcept;

    Report m_report;
    int m_error = 0;          // what is the matter, or 0
    std::size_t m_bytes = 0;  // the smallest write that failed for it
};
