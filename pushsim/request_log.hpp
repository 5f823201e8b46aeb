// One line per request on standard output: for a person, or one JSON object.

#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

#include "pushsim/answers.hpp"

struct LogEntry {
    std::string kind;  // "register", "deregister" or "unknown"
    int step = 0;      // 1 or 2; 0 for an unknown request
    std::string application;
    std::string target;
    Answer answer;
    std::string portText;           // the port header of the answer; empty when there is none
    bool unknownParameter = false;  // a second step that does not repeat a first answer
};

enum class LogForm { None, Text, Json };

// Safe on any thread; a line is never mixed with another and is flushed at once.
class RequestLog {
  public:
    // The stream is borrowed.
    RequestLog(LogForm form, std::ostream* stream) : m_form(form), m_stream(stream) {}

    // Printed in every form: whoever starts the server has to learn the port.
    void listening(const std::string& address, std::uint16_t port);
    void request(const LogEntry& entry);

  private:
    void write(const std::string& line);

    const LogForm m_form;
    std::mutex m_mutex;
    std::ostream* const m_stream;  // guarded by m_mutex
};
