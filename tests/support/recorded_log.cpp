// Stands in for the platform's slogf by being linked first.

#include "tests/support/recorded_log.hpp"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <thread>

#include "platform/slog/slog.hpp"

namespace {

constexpr std::uint32_t kAgentCode = 11000;

std::mutex& recordLock() {
    static auto* const lock = new std::mutex();
    return *lock;
}

std::vector<RecordedLine>& record() {
    static auto* const lines = new std::vector<RecordedLine>();
    return *lines;
}

// Without "QUIL:file.cpp(LINE): " or "QUIL: ".
std::string bareText(const RecordedLine& line) {
    const std::string& text = line.text;
    if (text.starts_with("QUIL: ")) {
        return text.substr(6);
    }
    const std::size_t end = text.find("): ");
    return text.starts_with("QUIL:") && end != std::string::npos ? text.substr(end + 3) : text;
}

}  // namespace

void slogf(std::uint32_t code, int severity, const char* format, ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard lock(recordLock());
    record().push_back({code, severity, text});
}

std::vector<RecordedLine> recordedLines() {
    const std::lock_guard lock(recordLock());
    return record();
}

void clearRecordedLines() {
    const std::lock_guard lock(recordLock());
    record().clear();
}

std::string recordedText() {
    std::string all;
    for (const RecordedLine& line : recordedLines()) {
        if (line.code != kAgentCode) {
            all += std::to_string(line.code) + "/";
        }
        all += std::to_string(line.severity) + " " + bareText(line) + "\n";
    }
    return all;
}

std::string linesOf(const std::vector<std::string>& sourceFiles) {
    std::string all;
    for (const RecordedLine& line : recordedLines()) {
        const bool isWanted =
            std::any_of(sourceFiles.begin(), sourceFiles.end(), [&line](const std::string& file) {
                return line.text.starts_with("QUIL:" + file + "(");
            });
        if (isWanted) {
            all += std::to_string(line.severity) + " " + bareText(line) + "\n";
        }
    }
    return all;
}

int countRecorded(int severity, const std::string& text) {
    int count = 0;
    for (const RecordedLine& line : recordedLines()) {
        count += line.severity == severity && bareText(line) == text ? 1 : 0;
    }
    return count;
}

bool waitForLogged(int severity, const std::string& text, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!wasLogged(severity, text)) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
