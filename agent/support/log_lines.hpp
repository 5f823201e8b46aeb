// Lines that are logged over and over, word for word: what was formatted once is kept, and logged
// from memory until it would be different. See logFromMemory() in log.hpp.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// One thread at a time.
class LogLines {
  public:
    struct Line {
        int level;
        std::size_t begin;   // in text()
        std::size_t length;  // without its line feed
    };

    // While it lives, what the calling thread logs is kept in `lines`, in place of what was there.
    class Recording {
      public:
        explicit Recording(LogLines* lines);
        ~Recording();
        Recording(const Recording&) = delete;
        Recording& operator=(const Recording&) = delete;
    };

    // The lines that the calling thread is recording, null for none.
    static LogLines* recording();
    // `line` is without its line feed.
    void add(int level, std::string_view line) noexcept;

    // Whether all lines of the last recording are there. False before it, and without memory.
    bool isKnown() const { return m_isKnown; }
    void forget() { m_isKnown = false; }

    // All of them, each with a line feed.
    const std::string& text() const { return m_text; }
    const std::vector<Line>& lines() const { return m_lines; }

  private:
    std::string m_text;
    std::vector<Line> m_lines;
    bool m_isKnown = false;
};
