#include "agent/support/log_lines.hpp"

#include <new>

namespace {

thread_local LogLines* t_recording = nullptr;

}  // namespace

LogLines::Recording::Recording(LogLines* lines) {
    lines->m_text.clear();
    lines->m_lines.clear();
    lines->m_isKnown = true;
    t_recording = lines;
}

LogLines::Recording::~Recording() {
    t_recording = nullptr;
}

LogLines* LogLines::recording() {
    return t_recording;
}

void LogLines::add(int level, std::string_view line) noexcept {
    try {
        const std::size_t begin = m_text.size();
        m_text.append(line).append(1, '\n');
        m_lines.push_back({level, begin, line.size()});
    } catch (const std::bad_alloc&) {
        m_isKnown = false;
    }
}
