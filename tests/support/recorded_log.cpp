// Stands in for the platform's slogf by being linked first.

#include "tests/support/recorded_log.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
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

struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    std::string text;  // "" for an open gate
    int held = 0;
};

Gate& gate() {
    static auto* const instance = new Gate();
    return *instance;
}

void passGate(const std::string& text) {
    Gate& at = gate();
    std::unique_lock lock(at.mutex);
    if (at.text.empty() || at.text != text) {
        return;
    }
    ++at.held;
    at.changed.notify_all();
    at.changed.wait(lock, [&at] { return at.text.empty(); });
    --at.held;
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
    const RecordedLine line{code, severity, text};
    {
        const std::lock_guard lock(recordLock());
        record().push_back(line);
    }
    passGate(bareText(line));
}

void slogLines(std::uint32_t code, const SlogEntry* lines, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        slogf(code, lines[i].severity, "%.*s", static_cast<int>(lines[i].length), lines[i].text);
    }
}

LogGate::LogGate(const std::string& text) {
    const std::lock_guard lock(gate().mutex);
    gate().text = text;
}

LogGate::~LogGate() {
    const std::lock_guard lock(gate().mutex);
    gate().text.clear();
    gate().changed.notify_all();
}

bool LogGate::waitUntilHeld(double seconds) const {
    Gate& at = gate();
    std::unique_lock lock(at.mutex);
    return at.changed.wait_for(lock, std::chrono::duration<double>(seconds),
                               [&at] { return at.held > 0; });
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
