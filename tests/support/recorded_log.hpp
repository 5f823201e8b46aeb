// The system log as a test sees it. A test program that compiles recorded_log.cpp in gets this
// slogf in place of the platform's; everything above it, logMessage included, is the real thing.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct RecordedLine {
    std::uint32_t code;
    int severity;
    std::string text;  // as handed to slogf, "QUIL:file.cpp(LINE): " included
};

// All lines since the process or the last clearing began, in order, of all threads. Safe on any
// thread.
std::vector<RecordedLine> recordedLines();
void clearRecordedLines();

// The same lines without what no test can know: "SEVERITY text", one per line,
// "QUIL:file.cpp(LINE): " left out. A line that is not the agent's own (another code) has its code
// in front: "CODE/SEVERITY text".
std::string recordedText();

// The lines of some source files alone, "SEVERITY text\n" each.
std::string linesOf(const std::vector<std::string>& sourceFiles);
inline std::string linesOf(const char* sourceFile) {
    return linesOf(std::vector<std::string>{sourceFile});
}

// How often a line of that severity and exactly that text (without "QUIL:file.cpp(LINE): ") was
// logged.
int countRecorded(int severity, const std::string& text);
inline bool wasLogged(int severity, const std::string& text) {
    return countRecorded(severity, text) > 0;
}

// Waits up to `seconds` until such a line has been logged. For lines of another thread.
bool waitForLogged(int severity, const std::string& text, double seconds = 10);

// Holds every thread that logs a line of exactly that text in its call, until the object is gone.
// One at a time.
class LogGate {
  public:
    explicit LogGate(const std::string& text);
    ~LogGate();
    LogGate(const LogGate&) = delete;
    LogGate& operator=(const LogGate&) = delete;

    // Waits until a thread is held. False when none came in time.
    bool waitUntilHeld(double seconds = 10) const;
};
